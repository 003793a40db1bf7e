#include "FakePasteboard.h"

#include <QTimer>

QStringList FakePasteboard::types(int index)
{
    QStringList result;
    if (index >= 0 && index < itemCount()) {
        for (const Entry& entry : items[size_t(index)])
            result.append(entry.type);
    }
    return result;
}

std::optional<QByteArray> FakePasteboard::data(int index, const QString& type)
{
    if (index < 0 || index >= itemCount())
        return std::nullopt;
    for (const Entry& entry : items[size_t(index)]) {
        if (entry.type == type)
            return entry.data;
    }
    return std::nullopt;
}

void FakePasteboard::setString(const QString& text)
{
    items = {{{plainTextType, text.toUtf8()}}};
    owned = true;
    ++writeCount;
}

void FakePasteboard::writeItems(const Contents& written)
{
    items.clear();
    for (const Item& item : written) {
        FakeItem copy;
        for (const auto& [type, bytes] : item.entries())
            copy.push_back({type, bytes});
        items.push_back(std::move(copy));
    }
    owned = true;
    ++writeCount;
}

std::optional<QString> FakePasteboard::string() const
{
    if (items.empty())
        return std::nullopt;
    for (const Entry& entry : items.front()) {
        if (entry.type == plainTextType && entry.data)
            return QString::fromUtf8(*entry.data);
    }
    return std::nullopt;
}

void FakePasteboard::snapshot(QObject* context, std::function<void(std::optional<Contents>)> done)
{
    // What the owner gave when asked, answered at once or later.
    std::optional<Contents> saved;
    if (!ownerSilent)
        Pasteboard::snapshot(context, [&saved](std::optional<Contents> read) { saved = std::move(read); });
    if (snapshotDelay.count() == 0)
        done(std::move(saved));
    else
        QTimer::singleShot(snapshotDelay, context, [done = std::move(done), saved = std::move(saved)] { done(saved); });
}
