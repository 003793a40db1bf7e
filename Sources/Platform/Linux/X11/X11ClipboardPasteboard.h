#pragma once

#include "Platform/Pasteboard.h"

// The X11 CLIPBOARD selection through QClipboard. It holds at most one item, offering every format
// of the current owner; the bookkeeping targets of the selection protocol are not formats.
class X11ClipboardPasteboard final : public Pasteboard {
public:
    int itemCount() override;
    QStringList types(int index) override;
    std::optional<QByteArray> data(int index, const QString& type) override;

    void clearContents() override;
    void setString(const QString& text) override;
    void writeItems(const std::vector<Item>& items) override;
    bool ownsContents() override;
};
