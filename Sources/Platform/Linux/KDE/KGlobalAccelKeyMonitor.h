#pragma once

#include "Platform/KeyMonitor.h"
#include "Platform/Linux/Input/ModifierKeys.h"
#include "Shared/Preferences/HotKey.h"

#include <QObject>

#include <functional>
#include <optional>

class QDBusPendingCall;

// The dictation key as KDE Plasma sees it on Wayland: a global shortcut of ours registered with
// kglobalaccel (which KWin serves on the session bus), whose component tells when the key goes
// down and when it comes up. The shortcut is registered while a handler is installed and let go
// after the last one, so choosing another key (the hotkey manager starts again) registers that
// one. Spoken through QtDBus: KDE's own client library is Qt 5. Main thread only.
class KGlobalAccelKeyMonitor final : public QObject, public KeyMonitor {
    Q_OBJECT
public:
    using DictationKey = std::function<HotKey()>;

    explicit KGlobalAccelKeyMonitor(DictationKey dictationKey);
    ~KGlobalAccelKeyMonitor() override;

    // Whether kglobalaccel answers on the session bus.
    static bool isAvailable();
    // The shortcut KDE binds for this key (Qt's key and modifiers, combined), or none where KDE
    // cannot tell the key alone.
    static std::optional<int> shortcutFor(HotKey key);

    // 0 when the chosen key cannot be bound alone (logged once per key).
    Token addMonitor(Handler handler) override;
    void removeMonitor(Token token) override;

private slots:
    void onPressed(const QString& component, const QString& actionName, qlonglong timestamp);
    void onReleased(const QString& component, const QString& actionName, qlonglong timestamp);

private:
    bool registerKey();
    void unregisterKey();
    void checkAssigned(const QDBusPendingCall& call, HotKey key, int shortcut);
    void connectSignals(bool connect);
    void deliver(const QString& component, const QString& actionName, bool down);

    DictationKey m_dictationKey;
    std::optional<HotKey> m_registeredKey;
    std::optional<HotKey> m_refusalLogged;
    KeyHandlerList m_handlers;
};
