#include "KGlobalAccelKeyMonitor.h"

#include "Shared/AppPaths.h"
#include "Shared/Logging.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>

#include <utility>

namespace {

const QString service = QStringLiteral("org.kde.kglobalaccel");
const QString componentInterface = QStringLiteral("org.kde.kglobalaccel.Component");
const QString action = QStringLiteral("dictation");

// kglobalaccel's flags for setShortcut: the action exists now, and the keys given are the ones to
// use (not what an earlier session stored).
constexpr uint setPresent = 2;
constexpr uint noAutoloading = 4;

// What kglobalaccel names an action by: component and action, each unique and then as shown.
QStringList actionId()
{
    return {AppPaths::applicationId(), action, QStringLiteral("Voxaria"), QStringLiteral("Ditado (segure para falar)")};
}

QDBusMessage callOnRegistry(const QString& method, const QVariantList& arguments)
{
    QDBusMessage message
        = QDBusMessage::createMethodCall(service, QStringLiteral("/kglobalaccel"), QStringLiteral("org.kde.KGlobalAccel"), method);
    message.setArguments(arguments);
    return message;
}

QString shortcutNames(const QList<int>& shortcuts)
{
    QStringList names;
    for (int shortcut : shortcuts)
        names << QStringLiteral("0x%1").arg(shortcut, 0, 16);
    return names.join(QLatin1Char(' '));
}

// Nobody waits for these answers; a failure only says why in the log.
void sendAndLogFailure(const QDBusMessage& message)
{
    auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(message));
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher, [method = message.member()](QDBusPendingCallWatcher* call) {
        if (call->isError())
            qCWarning(lcHotkey).noquote() << "kglobalaccel refused" << method << "-" << call->error().message();
        call->deleteLater();
    });
}

}

KGlobalAccelKeyMonitor::KGlobalAccelKeyMonitor(DictationKey dictationKey)
    : m_dictationKey(std::move(dictationKey))
    , m_handlers([this] { return registerKey(); }, [this] { unregisterKey(); })
{
}

KGlobalAccelKeyMonitor::~KGlobalAccelKeyMonitor()
{
    unregisterKey();
}

bool KGlobalAccelKeyMonitor::isAvailable()
{
    const QDBusConnectionInterface* bus = QDBusConnection::sessionBus().interface();
    return bus && bus->isServiceRegistered(service);
}

const QString KGlobalAccelKeyMonitor::chordLabel = QStringLiteral("Ctrl+Alt+Espaço");

QList<int> KGlobalAccelKeyMonitor::shortcutsFor(HotKey key)
{
    QList<int> shortcuts;
    switch (key) {
    // KWin reports Right Super with the Meta modifier already set, unlike Left Super's Key_Super_L.
    case HotKey::rightCommand: shortcuts << (Qt::MetaModifier | Qt::Key_Super_R).toCombined(); break;
    // Right Alt is AltGr in most layouts (Brazilian, Portuguese, German...); where it is Alt_R (the
    // US layout) KDE takes it for the Alt that Left Alt also is, and this shortcut never fires.
    case HotKey::rightOption: shortcuts << Qt::Key_AltGr; break;
    // KWin hands XF86WakeUp to no global shortcut.
    case HotKey::fn: break;
    }
    // Free in Plasma's default shortcuts, and KDE tells its release like a lone key's.
    shortcuts << (Qt::ControlModifier | Qt::AltModifier | Qt::Key_Space).toCombined();
    return shortcuts;
}

KeyMonitor::Token KGlobalAccelKeyMonitor::addMonitor(Handler handler)
{
    return m_handlers.add(std::move(handler));
}

void KGlobalAccelKeyMonitor::removeMonitor(Token token)
{
    m_handlers.remove(token);
}

// kglobalaccel's setShortcut replaces the action's keys: the old key is let go as the new one is bound.
void KGlobalAccelKeyMonitor::dictationKeyChanged()
{
    if (!m_registeredKey)
        return;
    m_registeredKey = m_dictationKey();
    sendShortcuts(*m_registeredKey);
}

bool KGlobalAccelKeyMonitor::registerKey()
{
    const HotKey key = m_dictationKey();
    sendShortcuts(key);
    connectSignals(true);
    m_registeredKey = key;
    // kglobalaccel forgets every registration when it ends; once it is back, ours is made again.
    if (!m_returns) {
        m_returns = new QDBusServiceWatcher(service, QDBusConnection::sessionBus(), QDBusServiceWatcher::WatchForRegistration, this);
        connect(m_returns, &QDBusServiceWatcher::serviceRegistered, this, [this] {
            if (m_registeredKey) {
                qCInfo(lcHotkey) << "kglobalaccel is back: registering the dictation shortcut again";
                sendShortcuts(*m_registeredKey);
            }
        });
    }
    if (!std::exchange(m_chordAnnounced, true))
        qCInfo(lcHotkey).noquote() << "KDE holds the dictation key through kglobalaccel; hold" << chordLabel << "where it cannot see"
                                   << key.label() << "alone (Right Alt in the US layout, fn)";
    return true;
}

void KGlobalAccelKeyMonitor::sendShortcuts(HotKey key)
{
    const QList<int> shortcuts = shortcutsFor(key);
    sendAndLogFailure(callOnRegistry(QStringLiteral("doRegister"), {actionId()}));
    const QDBusMessage set
        = callOnRegistry(QStringLiteral("setShortcut"), {actionId(), QVariant::fromValue(shortcuts), setPresent | noAutoloading});
    checkAssigned(QDBusConnection::sessionBus().asyncCall(set), key, shortcuts);
    qCInfo(lcHotkey).noquote() << "watching modifier keys through kglobalaccel:" << key.rawValue() << "bound as Qt keys"
                               << shortcutNames(shortcuts);
}

// kglobalaccel answers the keys it gave the action: a missing one is held by another shortcut.
void KGlobalAccelKeyMonitor::checkAssigned(const QDBusPendingCall& call, HotKey key, const QList<int>& shortcuts)
{
    auto* watcher = new QDBusPendingCallWatcher(call, this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [key, shortcuts](QDBusPendingCallWatcher* finished) {
        const QDBusPendingReply<QList<int>> reply = *finished;
        if (reply.isError())
            qCWarning(lcHotkey).noquote() << "kglobalaccel did not bind" << key.rawValue() << "-" << reply.error().message();
        for (int shortcut : shortcuts) {
            if (!reply.isError() && !reply.value().contains(shortcut))
                qCWarning(lcHotkey).noquote() << "kglobalaccel did not bind" << shortcutNames({shortcut})
                                              << "- another global shortcut of KDE holds it (System Settings > Shortcuts)";
        }
        finished->deleteLater();
    });
}

void KGlobalAccelKeyMonitor::unregisterKey()
{
    if (!m_registeredKey)
        return;
    // Inactive, the shortcut no longer takes the key from the applications; the binding is kept.
    sendAndLogFailure(callOnRegistry(QStringLiteral("setInactive"), {actionId()}));
    connectSignals(false);
    m_registeredKey.reset();
}

void KGlobalAccelKeyMonitor::connectSignals(bool connect)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    // Any path: the component's object is named by kglobalaccel; the arguments say whose shortcut it is.
    const auto wire = [&](const char* name, const char* slot) {
        if (connect)
            bus.connect(service, QString(), componentInterface, QLatin1String(name), this, slot);
        else
            bus.disconnect(service, QString(), componentInterface, QLatin1String(name), this, slot);
    };
    wire("globalShortcutPressed", SLOT(onPressed(QString, QString, qlonglong)));
    wire("globalShortcutReleased", SLOT(onReleased(QString, QString, qlonglong)));
}

void KGlobalAccelKeyMonitor::onPressed(const QString& component, const QString& actionName, qlonglong)
{
    deliver(component, actionName, true);
}

void KGlobalAccelKeyMonitor::onReleased(const QString& component, const QString& actionName, qlonglong)
{
    deliver(component, actionName, false);
}

// kglobalaccel's time stamp is no clock the other key sources share: the hold is measured on the
// monotonic clock, as for compositor bindings.
void KGlobalAccelKeyMonitor::deliver(const QString& component, const QString& actionName, bool down)
{
    if (!m_registeredKey || component != AppPaths::applicationId() || actionName != action)
        return;
    m_handlers.deliver(FlagsChangedEvent{m_registeredKey->keyCode(), down ? m_registeredKey->modifierFlag() : 0, std::nullopt});
}
