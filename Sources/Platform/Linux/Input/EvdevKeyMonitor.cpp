#include "EvdevKeyMonitor.h"

#include "Shared/Logging.h"

#include <QDir>
#include <QFile>
#include <QFileSystemWatcher>
#include <QSocketNotifier>

#include <linux/input.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// The kernel's key codes are the X keycodes less 8.
constexpr int kX11KeycodeOffset = 8;

QStringList eventDevices(const QString& folder)
{
    QStringList paths;
    const QDir dir(folder);
    for (const QString& name : dir.entryList({QStringLiteral("event*")}, QDir::System | QDir::Files, QDir::Name))
        paths << dir.filePath(name);
    return paths;
}

// A device that says it has none of the modifier keys (a mouse, a lid switch) is not read, so
// moving the mouse costs nothing. One that cannot be asked is read: keys are all that counts.
bool mayHaveModifierKeys(int fd)
{
    unsigned char keys[KEY_MAX / 8 + 1] = {};
    if (::ioctl(fd, EVIOCGBIT(EV_KEY, sizeof keys), keys) < 0)
        return true;
    for (int code : {KEY_RIGHTALT, KEY_LEFTALT, KEY_RIGHTMETA, KEY_LEFTMETA, KEY_RIGHTCTRL, KEY_LEFTCTRL}) {
        if (keys[code / 8] & (1 << (code % 8)))
            return true;
    }
    return false;
}

KeyEventTime millisecondsOf(const input_event& event)
{
    return KeyEventTime(quint64(event.input_event_sec) * 1000 + quint64(event.input_event_usec) / 1000);
}

}

EvdevKeyMonitor::EvdevKeyMonitor(QString folder)
    : m_folder(std::move(folder))
    , m_handlers([this] { return startWatching(); }, [this] { stopWatching(); })
{
}

EvdevKeyMonitor::~EvdevKeyMonitor()
{
    stopWatching();
}

bool EvdevKeyMonitor::canRead(const QString& folder)
{
    const QStringList devices = eventDevices(folder);
    return std::any_of(
        devices.begin(), devices.end(), [](const QString& path) { return ::access(QFile::encodeName(path).constData(), R_OK) == 0; });
}

KeyMonitor::Token EvdevKeyMonitor::addMonitor(Handler handler)
{
    return m_handlers.add(std::move(handler));
}

void EvdevKeyMonitor::removeMonitor(Token token)
{
    m_handlers.remove(token);
}

bool EvdevKeyMonitor::startWatching()
{
    const QStringList devices = eventDevices(m_folder);
    if (!devices.isEmpty() && !canRead(m_folder)) {
        qCWarning(lcHotkey).noquote() << "cannot read the keyboards in" << m_folder
                                      << "- add yourself to the input group (sudo usermod -aG input $USER) and log in again";
        return false;
    }
    m_watcher = std::make_unique<QFileSystemWatcher>(QStringList{m_folder});
    connect(m_watcher.get(), &QFileSystemWatcher::directoryChanged, this, &EvdevKeyMonitor::openNewDevices);
    openNewDevices();
    qCInfo(lcHotkey).noquote() << QStringLiteral("watching modifier keys through %1 (%2 keyboards)").arg(m_folder).arg(m_devices.size());
    return true;
}

void EvdevKeyMonitor::stopWatching()
{
    m_watcher.reset();
    while (!m_devices.empty())
        closeDevice(m_devices.begin()->first);
}

void EvdevKeyMonitor::openNewDevices()
{
    std::set<QString> open;
    for (const auto& [fd, device] : m_devices)
        open.insert(device.path);
    for (const QString& path : eventDevices(m_folder)) {
        if (!open.count(path) && openDevice(path))
            qCInfo(lcHotkey) << "reading keyboard" << path;
    }
}

bool EvdevKeyMonitor::openDevice(const QString& path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        qCDebug(lcHotkey) << "cannot read" << path << ":" << qt_error_string(errno);
        return false;
    }
    if (!mayHaveModifierKeys(fd)) {
        ::close(fd);
        return false;
    }
    Device& device = m_devices[fd];
    device.path = path;
    device.notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
    connect(device.notifier.get(), &QSocketNotifier::activated, this, [this, fd] { readDevice(fd); });
    return true;
}

void EvdevKeyMonitor::readDevice(int fd)
{
    // Whole records only: the kernel never splits one, and neither does a pipe for writes this small.
    input_event events[64];
    const ssize_t got = ::read(fd, events, sizeof events);
    if (got < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (got <= 0) {
        // Unplugged (ENODEV) or the stream ended.
        closeDevice(fd);
        return;
    }
    for (ssize_t i = 0; i < got / ssize_t(sizeof(input_event)); ++i) {
        const input_event& event = events[i];
        // Value 2 is the key repeat of a held key: not a change.
        if (event.type != EV_KEY || event.value == 2)
            continue;
        auto found = m_devices.find(fd);
        if (found == m_devices.end())
            return; // a handler closed it
        keyChanged(found->second, event.code, event.value == 1, millisecondsOf(event));
    }
}

void EvdevKeyMonitor::closeDevice(int fd)
{
    auto found = m_devices.find(fd);
    if (found == m_devices.end())
        return;
    Device device = std::move(found->second);
    m_devices.erase(found);
    device.notifier->setEnabled(false);
    // Later: this may run from the notifier's own signal.
    device.notifier.release()->deleteLater();
    ::close(fd);
    qCInfo(lcHotkey) << "keyboard gone:" << device.path;
    // Keys held on a keyboard that went away are up now, as far as anyone can tell.
    for (int keycode : device.heldKeycodes) {
        if (const std::optional<ModifierKey> key = modifierForX11Keycode(keycode))
            m_handlers.deliver(FlagsChangedEvent{key->virtualKeyCode, heldFlags(), std::nullopt});
    }
}

void EvdevKeyMonitor::keyChanged(Device& device, int kernelCode, bool pressed, KeyEventTime time)
{
    const int keycode = kernelCode + kX11KeycodeOffset;
    const std::optional<ModifierKey> key = modifierForX11Keycode(keycode);
    if (!key)
        return;
    const bool changed = pressed ? device.heldKeycodes.insert(keycode).second : device.heldKeycodes.erase(keycode) > 0;
    if (changed)
        m_handlers.deliver(FlagsChangedEvent{key->virtualKeyCode, heldFlags(), time});
}

quint64 EvdevKeyMonitor::heldFlags() const
{
    quint64 flags = 0;
    for (const auto& [fd, device] : m_devices)
        flags |= flagsOfHeldKeycodes(device.heldKeycodes);
    return flags;
}
