#include "Platform/Pasteboard.h"

#include "Shared/Logging.h"

void Pasteboard::snapshot(QObject*, std::function<void(std::optional<Contents>)> done)
{
    Contents saved;
    const int count = itemCount();
    saved.reserve(size_t(count));
    for (int index = 0; index < count; ++index) {
        Item copy;
        for (const QString& type : types(index))
            keep(copy, type, data(index, type));
        saved.push_back(std::move(copy));
    }
    done(std::move(saved));
}

void Pasteboard::keep(Item& item, const QString& type, const std::optional<QByteArray>& data)
{
    if (data)
        item.setData(type, *data);
    else
        qCDebug(lcInsert) << "Clipboard type" << type << "gave no data; it will not come back";
}
