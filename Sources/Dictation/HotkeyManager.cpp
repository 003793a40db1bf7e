#include "HotkeyManager.h"

#include "Shared/Logging.h"

#include <QPointer>

HotkeyManager::HotkeyManager(std::unique_ptr<KeyMonitor> monitor, std::function<HotKey()> dictationKey, QObject* parent)
    : QObject(parent)
    , m_source(std::move(monitor))
    , m_dictationKey(std::move(dictationKey))
{
}

HotkeyManager::~HotkeyManager()
{
    stop();
}

void HotkeyManager::start()
{
    stop();
    QPointer<HotkeyManager> weakSelf(this);
    m_monitor = m_source->addMonitor([weakSelf](const FlagsChangedEvent& event) {
        if (weakSelf)
            weakSelf->handle(event);
    });
    if (m_monitor == 0)
        qCWarning(lcHotkey) << "the dictation key is not watched; dictation cannot start from the keyboard";
}

void HotkeyManager::stop()
{
    if (m_monitor != 0)
        m_source->removeMonitor(m_monitor);
    m_monitor = 0;
    m_isDown = false;
}

void HotkeyManager::dictationKeyChanged()
{
    m_isDown = false;
    m_source->dictationKeyChanged();
}

void HotkeyManager::handle(const FlagsChangedEvent& event)
{
    const HotKey key = m_dictationKey();
    if (event.keyCode != key.keyCode())
        return;
    // The flag is the device-independent one: with the left twin still held, the flag stays set and
    // the release of the chosen key is not seen.
    const bool down = (event.modifierFlags & key.modifierFlag()) != 0;
    if (down == m_isDown)
        return;
    m_isDown = down;
    qCDebug(lcHotkey) << key.rawValue() << (down ? "pressed" : "released");
    // A copy: the callback may replace itself while it runs.
    const KeyCallback callback = down ? onPress : onRelease;
    if (callback)
        callback(event.time);
}
