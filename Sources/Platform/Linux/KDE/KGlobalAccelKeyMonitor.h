#pragma once

#include "Platform/KeyMonitor.h"
#include "Platform/Linux/Input/ModifierKeys.h"
#include "Shared/Preferences/HotKey.h"

#include <QList>
#include <QObject>

#include <functional>
#include <optional>

class QDBusPendingCall;
class QDBusServiceWatcher;

// The dictation key as KDE Plasma sees it on Wayland: a global shortcut of ours registered with
// kglobalaccel (which KWin serves on the session bus), whose component tells when the key goes
// down and when it comes up. The shortcut is registered while a handler is installed and let go
// after the last one, so choosing another key (the hotkey manager starts again) registers that
// one, and registered again whenever kglobalaccel comes back after a restart. Beside the key itself
// the action holds a chord, `chordLabel`, that works in every layout: in the US layout Right Alt is
// Alt_R, which KDE never hands to a global shortcut alone. Spoken through QtDBus: KDE's own client
// library is Qt 5. Main thread only.
class KGlobalAccelKeyMonitor final : public QObject, public KeyMonitor {
    Q_OBJECT
public:
    using DictationKey = std::function<HotKey()>;

    explicit KGlobalAccelKeyMonitor(DictationKey dictationKey);
    ~KGlobalAccelKeyMonitor() override;

    // Whether kglobalaccel answers on the session bus.
    static bool isAvailable();
    // The chord bound for every dictation key, as the user reads it.
    static const QString chordLabel;
    // The shortcuts KDE binds for this key (Qt's key and modifiers, combined): the key alone where
    // KDE can tell it, then the chord.
    static QList<int> shortcutsFor(HotKey key);

    Token addMonitor(Handler handler) override;
    void removeMonitor(Token token) override;
    void dictationKeyChanged() override;

private slots:
    void onPressed(const QString& component, const QString& actionName, qlonglong timestamp);
    void onReleased(const QString& component, const QString& actionName, qlonglong timestamp);

private:
    bool registerKey();
    void sendShortcuts(HotKey key);
    void unregisterKey();
    void checkAssigned(const QDBusPendingCall& call, HotKey key, const QList<int>& shortcuts);
    void connectSignals(bool connect);
    void deliver(const QString& component, const QString& actionName, bool down);

    DictationKey m_dictationKey;
    std::optional<HotKey> m_registeredKey;
    bool m_chordAnnounced = false;
    QDBusServiceWatcher* m_returns = nullptr;
    KeyHandlerList m_handlers;
};
