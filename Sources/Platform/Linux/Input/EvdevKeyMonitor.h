#pragma once

#include "ModifierKeys.h"
#include "Platform/KeyMonitor.h"

#include <QObject>
#include <QString>

#include <map>
#include <memory>
#include <set>

class QFileSystemWatcher;
class QSocketNotifier;

// The modifier keys of every keyboard, read from the kernel's event devices (/dev/input/event*).
// This works under any Wayland compositor, for users allowed to read those devices (the `input`
// group). Devices are only read, never grabbed, so every key still reaches the compositor. Keyboards
// plugged in later are picked up; one that goes away lets go of the keys it held.
class EvdevKeyMonitor final : public QObject, public KeyMonitor {
    Q_OBJECT
public:
    explicit EvdevKeyMonitor(QString folder = defaultFolder());
    ~EvdevKeyMonitor() override;

    Token addMonitor(Handler handler) override;
    void removeMonitor(Token token) override;

    static QString defaultFolder() { return QStringLiteral("/dev/input"); }
    // Whether this user may read at least one event device of the folder.
    static bool canRead(const QString& folder = defaultFolder());

private:
    struct Device {
        QString path;
        std::unique_ptr<QSocketNotifier> notifier;
        // X keycodes, so held keys translate through the same table as on X11.
        std::set<int> heldKeycodes;
    };

    bool startWatching();
    void stopWatching();
    void openNewDevices();
    bool openDevice(const QString& path);
    void readDevice(int fd);
    void closeDevice(int fd);
    void keyChanged(Device& device, int kernelCode, bool pressed, KeyEventTime time);
    quint64 heldFlags() const;

    QString m_folder;
    std::unique_ptr<QFileSystemWatcher> m_watcher;
    std::map<int, Device> m_devices;
    KeyHandlerList m_handlers;
};
