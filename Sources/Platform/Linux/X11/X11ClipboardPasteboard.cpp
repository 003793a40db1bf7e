#include "X11ClipboardPasteboard.h"

#include "Shared/Logging.h"
#include "Shared/WorkerThreads.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>
#include <QPointer>
#include <QScreen>
#include <qpa/qplatformnativeinterface.h>

#include "X11Display.h"
#include "X11SelectionReader.h"

#include <xcb/xcb.h>

namespace {

// Another program's clipboard is read within this time, every format together; what it has not
// given by then is left out.
constexpr std::chrono::milliseconds readTimeout{1500};

bool onX11()
{
    return QGuiApplication::platformName() == QLatin1String("xcb") && X11Display::shared();
}

// Qt claims the selection with the time of the last X event it saw. Voxaria sees few (its windows
// rarely get input), so after another program copies something the server would ignore a claim
// that old and the paste would paste the old contents. The server's current time, asked on our own
// connection, is handed to Qt's xcb plugin, which only ever moves its clock forward.
void bringServerTimeToQt()
{
    if (!onX11())
        return;
    using SetAppTime = void (*)(QScreen*, xcb_timestamp_t);
    static const auto setAppTime = reinterpret_cast<SetAppTime>(
        reinterpret_cast<void*>(QGuiApplication::platformNativeInterface()->nativeResourceFunctionForScreen("setapptime")));
    const std::optional<Time> now = X11Display::serverTime(X11Display::shared());
    if (setAppTime && now)
        setAppTime(QGuiApplication::primaryScreen(), xcb_timestamp_t(*now));
    else
        qCWarning(lcInsert) << "Could not hand the X server's time to Qt; the clipboard may stay with its owner";
}

// Whether the X server names a window of Qt's own connection as the CLIPBOARD owner. Asked of the
// server, since Qt learns of a newer owner only when it next handles its events.
bool qtOwnsSelection()
{
    const auto x11 = qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    Display* display = X11Display::shared();
    if (!x11)
        return false;
    static const Atom clipboard = XInternAtom(display, "CLIPBOARD", False);
    const Window owner = XGetSelectionOwner(display, clipboard);
    const xcb_setup_t* setup = xcb_get_setup(x11->connection());
    return owner != None && (owner & ~Window(setup->resource_id_mask)) == setup->resource_id_base;
}

const QMimeData* currentContents()
{
    QClipboard* clipboard = QGuiApplication::clipboard();
    return clipboard ? clipboard->mimeData(QClipboard::Clipboard) : nullptr;
}

// The clipboard holds one item: every format read is a type of it.
std::optional<Pasteboard::Contents> contentsOf(const std::optional<X11SelectionReader::Entries>& entries)
{
    if (!entries)
        return std::nullopt;
    if (entries->empty())
        return Pasteboard::Contents{};
    Pasteboard::Item item;
    for (const auto& [format, bytes] : *entries)
        item.setData(format, bytes);
    return Pasteboard::Contents{item};
}

}

X11ClipboardPasteboard::X11ClipboardPasteboard()
    : m_reads(std::make_unique<WorkerThreads>())
{
}

X11ClipboardPasteboard::~X11ClipboardPasteboard() = default;

void X11ClipboardPasteboard::snapshot(QObject* context, std::function<void(std::optional<Contents>)> done)
{
    // Our own contents are in memory; another program's are read away from the main thread, which
    // Qt's clipboard would hold for up to 5 s when the owner does not answer.
    if (!onX11() || qtOwnsSelection()) {
        Pasteboard::snapshot(context, std::move(done));
        return;
    }
    // The answer hops to the main thread through the application object, which outlives the
    // pasteboard and so this thread; it is dropped there if the insertion is gone.
    const QByteArray displayName = XDisplayString(X11Display::shared());
    m_reads->start([displayName, guard = QPointer<QObject>(context), done = std::move(done)](const std::atomic<bool>& stop) {
        std::optional<X11SelectionReader::Entries> entries = X11SelectionReader::read(displayName, readTimeout, stop);
        if (QCoreApplication* application = QCoreApplication::instance()) {
            QMetaObject::invokeMethod(
                application,
                [guard, done, entries = std::move(entries)] {
                    if (guard)
                        done(contentsOf(entries));
                },
                Qt::QueuedConnection);
        }
    });
}

int X11ClipboardPasteboard::itemCount()
{
    return types(0).isEmpty() ? 0 : 1;
}

QStringList X11ClipboardPasteboard::types(int index)
{
    const QMimeData* contents = currentContents();
    if (index != 0 || !contents)
        return {};
    QStringList formats = contents->formats();
    formats.removeIf(X11SelectionReader::isBookkeeping);
    return formats;
}

std::optional<QByteArray> X11ClipboardPasteboard::data(int index, const QString& type)
{
    const QMimeData* contents = currentContents();
    if (index != 0 || !contents)
        return std::nullopt;
    QByteArray bytes = contents->data(type);
    if (bytes.isEmpty())
        return std::nullopt;
    return bytes;
}

void X11ClipboardPasteboard::setString(const QString& text)
{
    if (QClipboard* clipboard = QGuiApplication::clipboard()) {
        bringServerTimeToQt();
        clipboard->setText(text, QClipboard::Clipboard);
    }
}

void X11ClipboardPasteboard::writeItems(const Contents& items)
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

bool X11ClipboardPasteboard::ownsContents()
{
    if (onX11())
        return qtOwnsSelection();
    const QClipboard* clipboard = QGuiApplication::clipboard();
    return clipboard && clipboard->ownsClipboard();
}
