#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <chrono>
#include <optional>
#include <utility>
#include <vector>

// Reads the CLIPBOARD selection of another program on an X connection of its own, so whoever calls
// it never waits on the connection Qt's event loop uses; meant for a worker thread. Every target the
// owner lists is asked for in turn (large ones through INCR), all within one timeout. Targets are
// named as Qt's clipboard names them: the text targets (UTF8_STRING, STRING, TEXT) are one
// "text/plain", so what was read can be handed back to QClipboard as it came.
class X11SelectionReader {
public:
    using Entries = std::vector<std::pair<QString, QByteArray>>;

    // What the owner gave, a target it refused or did not finish in time left out; nothing (and a
    // logged reason) when it gave none at all, or never listed its targets; an empty list when the
    // clipboard has no owner. `stop` ends the reading early, as if the time were up.
    static std::optional<Entries> read(const QByteArray& displayName, std::chrono::milliseconds timeout, const std::atomic<bool>& stop);

    // The selection protocol's own targets, those that name no data of their own (a drawable's
    // id), and application/x-qt-image, Qt's decoded view of image formats that are saved anyway.
    static bool isBookkeeping(const QString& target);
};
