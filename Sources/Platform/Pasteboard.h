#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

class QObject;

// The general clipboard, seen as a list of items, each offering data under one or more types.
// All calls belong on the main thread.
class Pasteboard {
public:
    // An item made by us, to be written back: data under types, in the order they were set.
    class Item {
    public:
        void setData(const QString& type, const QByteArray& data) { m_entries.emplace_back(type, data); }
        const std::vector<std::pair<QString, QByteArray>>& entries() const { return m_entries; }
        bool operator==(const Item&) const = default;

    private:
        std::vector<std::pair<QString, QByteArray>> m_entries;
    };

    using Contents = std::vector<Item>;

    virtual ~Pasteboard() = default;

    // Copies of every item, keeping each type that gives data; the owner may lose the rest.
    // `done` gets them once they are all in, unless `context` is gone by then; nothing when the
    // owner offered data but answered none of it, which is not an empty clipboard and must not be
    // restored as one. This one reads them through the calls below and answers before it returns;
    // a clipboard whose owner answers through a pipe or another connection reads them while the
    // event loop runs.
    virtual void snapshot(QObject* context, std::function<void(std::optional<Contents>)> done);

    virtual int itemCount() = 0;
    // The types the item at `index` declares, in its own order.
    virtual QStringList types(int index) = 0;
    // The item's data for a type; nothing when the owner gives none.
    virtual std::optional<QByteArray> data(int index, const QString& type) = 0;

    // Each write replaces the contents in one step, never through an empty clipboard in between: a
    // clipboard manager fills an emptied clipboard with an item of its own at once, which could
    // then be what the paste finds.
    //
    // Replaces the contents with one item holding `text` as plain text.
    virtual void setString(const QString& text) = 0;
    // Replaces the contents with `items`; none: the clipboard is emptied.
    virtual void writeItems(const Contents& items) = 0;
    // Whether the contents are still the ones this process wrote last, i.e. nobody copied since.
    virtual bool ownsContents() = 0;

protected:
    // Adds a saved type to `item` when it gave data; one that gave none will not come back.
    static void keep(Item& item, const QString& type, const std::optional<QByteArray>& data);
};
