#pragma once

#include "Platform/Pasteboard.h"

#include <chrono>

// A pasteboard in memory. Tests fill `items`, including types that yield no data, and read back
// what was written; every write is counted. A snapshot answers at once, or after `snapshotDelay`
// like a clipboard read through pipes; with `ownerSilent`, it answers that the owner gave nothing.
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
    // Whether the last change came through this pasteboard's writes rather than the test's.
    bool owned = false;
    std::chrono::milliseconds snapshotDelay{0};
    bool ownerSilent = false;

    int itemCount() override { return int(items.size()); }
    QStringList types(int index) override;
    std::optional<QByteArray> data(int index, const QString& type) override;

    void setString(const QString& text) override;
    void writeItems(const Contents& written) override;
    bool ownsContents() override { return owned; }
    void snapshot(QObject* context, std::function<void(std::optional<Contents>)> done) override;

    // The plain text on the pasteboard, if its first item has some.
    std::optional<QString> string() const;
};
