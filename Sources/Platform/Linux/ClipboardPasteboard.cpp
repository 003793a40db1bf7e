#include "ClipboardPasteboard.h"

#include "Shared/Logging.h"

#include <QAbstractNativeEventFilter>
#include <QClipboard>
#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QGuiApplication>
#include <QMimeData>
#include <QWindow>

#include <xcb/xcb.h>

std::shared_ptr<Pasteboard> Pasteboard::general()
{
    return std::make_shared<ClipboardPasteboard>();
}

namespace {

// Notices when the X server echoes a property change on one window back to Qt.
class PropertyEcho final : public QAbstractNativeEventFilter {
public:
    explicit PropertyEcho(WId window) : m_window(window) {}
    bool seen = false;

    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) override
    {
        if (eventType != "xcb_generic_event_t")
            return false;
        const auto event = static_cast<const xcb_generic_event_t*>(message);
        if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY
            && static_cast<const xcb_property_notify_event_t*>(message)->window == m_window)
            seen = true;
        return false;
    }

private:
    WId m_window;
};

// Qt claims the selection with the time of the last X event this process saw. Voxaria sees few
// (its windows rarely get input), so after another program copies something the server would
// ignore a claim that old and the paste would paste the old contents. A property change on a
// window of ours brings the server's current time back to Qt through its own event handling.
void bringServerTimeToQt()
{
    if (QGuiApplication::platformName() != QLatin1String("xcb"))
        return;
    static QWindow* stamp = [] {
        auto window = new QWindow;
        window->create();
        return window;
    }();
    static int counter = 0;
    PropertyEcho echo(stamp->winId());
    QCoreApplication::instance()->installNativeEventFilter(&echo);
    stamp->setTitle(QString::number(++counter));
    const QDeadlineTimer deadline(200);
    while (!echo.seen && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::ExcludeUserInputEvents, 5);
    QCoreApplication::instance()->removeNativeEventFilter(&echo);
    if (!echo.seen)
        qCWarning(lcInsert) << "The X server did not echo a property change; the clipboard may stay with its owner";
}

// The selection protocol's own targets are no data; application/x-qt-image is Qt's decoded view
// of image formats that are saved anyway.
bool isBookkeepingFormat(const QString& format)
{
    static const QStringList bookkeeping = {QStringLiteral("TARGETS"), QStringLiteral("MULTIPLE"),
        QStringLiteral("TIMESTAMP"), QStringLiteral("SAVE_TARGETS"), QStringLiteral("application/x-qt-image")};
    return bookkeeping.contains(format);
}

const QMimeData* currentContents()
{
    QClipboard* clipboard = QGuiApplication::clipboard();
    return clipboard ? clipboard->mimeData(QClipboard::Clipboard) : nullptr;
}

}

int ClipboardPasteboard::itemCount()
{
    return types(0).isEmpty() ? 0 : 1;
}

QStringList ClipboardPasteboard::types(int index)
{
    const QMimeData* contents = currentContents();
    if (index != 0 || !contents)
        return {};
    QStringList formats = contents->formats();
    formats.removeIf(isBookkeepingFormat);
    return formats;
}

std::optional<QByteArray> ClipboardPasteboard::data(int index, const QString& type)
{
    const QMimeData* contents = currentContents();
    if (index != 0 || !contents)
        return std::nullopt;
    QByteArray bytes = contents->data(type);
    if (bytes.isEmpty())
        return std::nullopt;
    return bytes;
}

void ClipboardPasteboard::clearContents()
{
    if (QClipboard* clipboard = QGuiApplication::clipboard()) {
        bringServerTimeToQt();
        clipboard->clear(QClipboard::Clipboard);
    }
}

void ClipboardPasteboard::setString(const QString& text)
{
    if (QClipboard* clipboard = QGuiApplication::clipboard()) {
        bringServerTimeToQt();
        clipboard->setText(text, QClipboard::Clipboard);
    }
}

void ClipboardPasteboard::writeItems(const std::vector<Item>& items)
{
    QClipboard* clipboard = QGuiApplication::clipboard();
    if (!clipboard)
        return;
    if (items.size() > 1)
        qCDebug(lcInsert) << "The clipboard holds one item; merging" << items.size() << "items into it";
    auto contents = std::make_unique<QMimeData>();
    for (const Item& item : items) {
        for (const auto& [type, bytes] : item.entries()) {
            if (!contents->hasFormat(type))
                contents->setData(type, bytes);
        }
    }
    bringServerTimeToQt();
    if (contents->formats().isEmpty())
        clipboard->clear(QClipboard::Clipboard);
    else
        clipboard->setMimeData(contents.release(), QClipboard::Clipboard);
}
