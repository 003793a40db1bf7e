#pragma once

#include "Platform/Pasteboard.h"

#include <memory>

class WorkerThreads;

// The X11 CLIPBOARD selection through QClipboard. It holds at most one item, offering every format
// of the current owner; the bookkeeping targets of the selection protocol are not formats. Every
// write is one change of owner, never through an ownerless clipboard. A snapshot of another
// program's clipboard is read on a thread and X connection of its own (X11SelectionReader), so an
// owner that never answers costs one deadline and no frozen main thread.
class X11ClipboardPasteboard final : public Pasteboard {
public:
    X11ClipboardPasteboard();
    ~X11ClipboardPasteboard() override;

    void snapshot(QObject* context, std::function<void(std::optional<Contents>)> done) override;
    int itemCount() override;
    QStringList types(int index) override;
    std::optional<QByteArray> data(int index, const QString& type) override;

    void setString(const QString& text) override;
    void writeItems(const Contents& items) override;
    bool ownsContents() override;

private:
    // The reads of other programs' clipboards, one thread each; stopped and joined when the
    // pasteboard goes.
    std::unique_ptr<WorkerThreads> m_reads;
};
