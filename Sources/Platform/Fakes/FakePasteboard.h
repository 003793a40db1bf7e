#pragma once

#include "Platform/Pasteboard.h"

// A pasteboard in memory. Tests fill `items`, including types that yield no data, and read back
// what was written; every write is counted, and another program can take the pasteboard over.
class FakePasteboard final : public Pasteboard {
public:
    static inline const QString plainTextType = QStringLiteral("text/plain");

    struct Entry {
        QString type;
        std::optional<QByteArray> data; // nothing: the type is declared but gives no data
        bool operator==(const Entry&) const = default;
    };
    using FakeItem = std::vector<Entry>;

    std::vector<FakeItem> items;
    int writeCount = 0;
    // Whether the last change came through this pasteboard's writes rather than another program.
    bool owned = false;

    int itemCount() override { return int(items.size()); }
    QStringList types(int index) override;
    std::optional<QByteArray> data(int index, const QString& type) override;

    void clearContents() override;
    void setString(const QString& text) override;
    void writeItems(const std::vector<Item>& written) override;
    bool ownsContents() override { return owned; }

    // What another program's copy does: new contents, owned by someone else.
    void copyElsewhere(std::vector<FakeItem> copied);

    // The plain text on the pasteboard, if its first item has some.
    std::optional<QString> string() const;
};
