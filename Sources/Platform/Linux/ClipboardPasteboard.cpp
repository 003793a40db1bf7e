#include "ClipboardPasteboard.h"

#include "Logging.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QMimeData>

std::shared_ptr<Pasteboard> Pasteboard::general()
{
    return std::make_shared<ClipboardPasteboard>();
}

namespace {

const QMimeData* currentContents()
{
    QClipboard* clipboard = QGuiApplication::clipboard();
    return clipboard ? clipboard->mimeData(QClipboard::Clipboard) : nullptr;
}

}

bool ClipboardPasteboard::isBookkeepingFormat(const QString& format)
{
    // application/x-qt-image is Qt's decoded view of the image formats that are saved anyway.
    static const QStringList bookkeeping = {QStringLiteral("TARGETS"), QStringLiteral("MULTIPLE"),
        QStringLiteral("TIMESTAMP"), QStringLiteral("SAVE_TARGETS"), QStringLiteral("application/x-qt-image")};
    return bookkeeping.contains(format);
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
    formats.removeIf(&ClipboardPasteboard::isBookkeepingFormat);
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
    if (QClipboard* clipboard = QGuiApplication::clipboard())
        clipboard->clear(QClipboard::Clipboard);
}

void ClipboardPasteboard::setString(const QString& text)
{
    if (QClipboard* clipboard = QGuiApplication::clipboard())
        clipboard->setText(text, QClipboard::Clipboard);
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
    if (contents->formats().isEmpty()) {
        clipboard->clear(QClipboard::Clipboard);
        return;
    }
    clipboard->setMimeData(contents.release(), QClipboard::Clipboard);
}
