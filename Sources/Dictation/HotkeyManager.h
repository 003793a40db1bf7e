#pragma once

#include "Platform/KeyMonitor.h"
#include "Shared/Preferences/HotKey.h"

#include <QObject>

#include <functional>
#include <memory>
#include <optional>

// Turns the holding of the chosen dictation key into one onPress and one onRelease. Only modifier
// flag changes are watched, so the key types nothing and works whichever application is in front.
// `dictationKey` is asked at every event: a key chosen in the menu counts at once.
class HotkeyManager : public QObject {
    Q_OBJECT
public:
    HotkeyManager(std::unique_ptr<KeyMonitor> monitor, std::function<HotKey()> dictationKey, QObject* parent = nullptr);
    ~HotkeyManager() override;

    // Called with the key event's own time, when the source tells it.
    using KeyCallback = std::function<void(std::optional<KeyEventTime> time)>;
    KeyCallback onPress;
    KeyCallback onRelease;

    // Installs the monitor; a second call replaces it, so there is never more than one.
    void start();
    // Removes the monitor and forgets the key, without an onRelease even when the key is held.
    void stop();
    // Another key was chosen: the old one, even held, is forgotten without an onRelease. The monitor
    // stays installed, so a press of the new key right after the choice is heard.
    void dictationKeyChanged();

    void handle(const FlagsChangedEvent& event);

private:
    std::unique_ptr<KeyMonitor> m_source;
    std::function<HotKey()> m_dictationKey;
    KeyMonitor::Token m_monitor = 0;
    bool m_isDown = false;
};
