#pragma once

#include "Platform/KeyMonitor.h"
#include "Platform/Linux/Input/ModifierKeys.h"
#include "Shared/Preferences/HotKey.h"

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class QDBusMessage;

// The dictation key held through xdg-desktop-portal's GlobalShortcuts (GNOME 48 and later): the
// portal tells when a shortcut of ours goes down (Activated) and up (Deactivated), and those become
// the press and release of the chosen dictation key. The portal binds a chord, never a lone
// modifier, so the user holds `defaultTrigger` (or whatever they chose in the portal's dialog)
// instead of the key itself. A session is opened while a handler is installed and closed after the
// last one. Main thread only.
class GlobalShortcutsKeyMonitor final : public QObject, public KeyMonitor {
    Q_OBJECT
public:
    using DictationKey = std::function<HotKey()>;

    // The chord proposed to the portal (xdg shortcuts notation), and as the user reads it.
    static const QString defaultTrigger;
    static const QString defaultTriggerLabel;

    explicit GlobalShortcutsKeyMonitor(DictationKey dictationKey);
    ~GlobalShortcutsKeyMonitor() override;

    // Asks, without waiting, whether the desktop portal on the session bus offers global shortcuts
    // (GNOME 48 and later): `answer` follows on the main thread, within 1.5 s, unless `context` is
    // gone by then.
    static void askAvailability(QObject* context, std::function<void(bool available)> answer);

    // Answers at once; the portal's session follows (a refusal is logged).
    Token addMonitor(Handler handler) override;
    void removeMonitor(Token token) override;

private slots:
    // Activated or Deactivated, from any session of ours or of another program's.
    void onShortcutSignal(const QDBusMessage& signal);

private:
    bool start();
    void stop();
    void registerApplication();
    void createSession();
    void bindShortcut(const QString& sessionHandle);
    void announceTrigger(const QVariant& boundShortcuts);
    static void closeSession(const QString& handle);
    void connectSignals(bool connect);
    void deliver(bool down);
    bool isCurrent(int generation) const { return generation == m_generation; }

    DictationKey m_dictationKey;
    bool m_registered = false;
    // Grows with every start, so the answers to an earlier session's calls are recognised and dropped.
    int m_generation = 0;
    bool m_watching = false;
    QString m_sessionHandle;
    std::optional<HotKey> m_heldKey;
    bool m_triggerAnnounced = false;
    KeyHandlerList m_handlers;
};
