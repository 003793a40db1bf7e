#include "GlobalShortcutsKeyMonitor.h"

#include "PortalNames.h"
#include "PortalRequest.h"
#include "PortalShortcut.h"
#include "Shared/AppPaths.h"
#include "Shared/Logging.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>

#include <utility>

namespace {

const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
const QString shortcutId = QStringLiteral("dictation");
constexpr int availabilityTimeoutMs = 1500;

QDBusMessage portalCall(const QString& interface, const QString& method, const QVariantList& arguments)
{
    QDBusMessage message = QDBusMessage::createMethodCall(PortalNames::service, PortalNames::objectPath, interface, method);
    message.setArguments(arguments);
    return message;
}

// The interface says a string; some portals send an object path, as the handle really is.
QString sessionHandleOf(const QVariantMap& results)
{
    const QVariant handle = results.value(QStringLiteral("session_handle"));
    if (handle.metaType() == QMetaType::fromType<QDBusObjectPath>())
        return handle.value<QDBusObjectPath>().path();
    return handle.toString();
}

}

// Ctrl+Alt+Space is free in GNOME's default shortcuts and easy to hold with one hand.
const QString GlobalShortcutsKeyMonitor::defaultTrigger = QStringLiteral("CTRL+ALT+space");
const QString GlobalShortcutsKeyMonitor::defaultTriggerLabel = QStringLiteral("Ctrl+Alt+Espaço");

GlobalShortcutsKeyMonitor::GlobalShortcutsKeyMonitor(DictationKey dictationKey)
    : m_dictationKey(std::move(dictationKey))
    , m_handlers([this] { return start(); }, [this] { stop(); })
{
    PortalShortcut::registerType();
    registerApplication();
}

GlobalShortcutsKeyMonitor::~GlobalShortcutsKeyMonitor()
{
    stop();
}

// Asked once, while the program starts: a portal that runs answers at once; one the bus would have
// to start, or that hangs, is given up after a moment and the keyboards are read instead. The wait
// runs a local event loop, so a portal served by this very process can answer as well.
void GlobalShortcutsKeyMonitor::askAvailability(QObject* context, std::function<void(bool available)> answer)
{
    QDBusMessage get = QDBusMessage::createMethodCall(
        PortalNames::service, PortalNames::objectPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << shortcutsInterface << QStringLiteral("version");
    auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(get, availabilityTimeoutMs), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [watcher, answer = std::move(answer)] {
        watcher->deleteLater();
        const QDBusMessage reply = watcher->reply();
        if (reply.type() != QDBusMessage::ReplyMessage)
            qCInfo(lcHotkey).noquote() << "no global shortcuts in the desktop portal:" << reply.errorMessage();
        answer(reply.type() == QDBusMessage::ReplyMessage);
    });
}

KeyMonitor::Token GlobalShortcutsKeyMonitor::addMonitor(Handler handler)
{
    return m_handlers.add(std::move(handler));
}

void GlobalShortcutsKeyMonitor::removeMonitor(Token token)
{
    m_handlers.remove(token);
}

bool GlobalShortcutsKeyMonitor::start()
{
    ++m_generation;
    m_watching = true;
    connectSignals(true);
    // Until the portal has answered the registration, its answer opens the session.
    if (m_registered)
        createSession();
    return true;
}

void GlobalShortcutsKeyMonitor::stop()
{
    if (!m_watching)
        return;
    m_watching = false;
    ++m_generation;
    connectSignals(false);
    closeSession(std::exchange(m_sessionHandle, {}));
    m_heldKey.reset();
}

// Since xdg-desktop-portal 1.20 a program outside a sandbox says which desktop file it is before
// its first portal call, or the portal cannot tell whose shortcuts these are: this is done as soon
// as the program starts. Older portals lack the interface: the error is only noted and the session
// asked for all the same.
void GlobalShortcutsKeyMonitor::registerApplication()
{
    const QDBusMessage call = portalCall(
        QStringLiteral("org.freedesktop.host.portal.Registry"), QStringLiteral("Register"), {AppPaths::applicationId(), QVariantMap()});
    auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* finished) {
        finished->deleteLater();
        if (finished->isError())
            qCInfo(lcHotkey).noquote() << "the desktop portal did not register the program (older than 1.20?):"
                                       << finished->error().message();
        m_registered = true;
        if (m_watching)
            createSession();
    });
}

void GlobalShortcutsKeyMonitor::createSession()
{
    const QString token = PortalRequest::nextToken();
    const QVariantMap options{{QStringLiteral("handle_token"), token}, {QStringLiteral("session_handle_token"), token}};
    const int generation = m_generation;
    PortalRequest::send(
        portalCall(shortcutsInterface, QStringLiteral("CreateSession"), {options}), token, this,
        [this, generation](uint response, const QVariantMap& results) {
            const QString handle = sessionHandleOf(results);
            if (response != 0 || handle.isEmpty()) {
                qCWarning(lcHotkey).noquote() << "the desktop portal opened no global shortcuts session (answer" << response << ")";
                return;
            }
            // A session opened for a run of watching that has ended meanwhile is closed at once.
            if (!isCurrent(generation))
                return closeSession(handle);
            m_sessionHandle = handle;
            bindShortcut(handle);
        },
        [](const QString& error) {
            qCWarning(lcHotkey).noquote() << "the desktop portal offers no global shortcuts:" << error
                                          << "- the dictation key is heard only where /dev/input can be read";
        });
}

// The portal shows its own dialog, where the user may keep the proposed chord or choose another.
void GlobalShortcutsKeyMonitor::bindShortcut(const QString& sessionHandle)
{
    const QString token = PortalRequest::nextToken();
    const QList<PortalShortcut> shortcuts{{shortcutId,
        {{QStringLiteral("description"), QStringLiteral("Ditado (segure para falar)")},
            {QStringLiteral("preferred_trigger"), defaultTrigger}}}};
    const QDBusMessage call = portalCall(shortcutsInterface, QStringLiteral("BindShortcuts"),
        {QVariant::fromValue(QDBusObjectPath(sessionHandle)), QVariant::fromValue(shortcuts), QString(),
            QVariantMap{{QStringLiteral("handle_token"), token}}});
    PortalRequest::send(
        call, token, this,
        [this, sessionHandle](uint response, const QVariantMap& results) {
            if (response != 0) {
                qCWarning(lcHotkey).noquote() << "the global shortcut for dictation was not allowed (answer" << response
                                              << ") - it can be set again when Voxaria restarts";
                // A session binds once: one without the shortcut is of no use.
                if (m_sessionHandle == sessionHandle)
                    closeSession(std::exchange(m_sessionHandle, {}));
                return;
            }
            announceTrigger(results.value(QStringLiteral("shortcuts")));
        },
        [](const QString& error) { qCWarning(lcHotkey).noquote() << "the desktop portal did not bind the dictation shortcut:" << error; });
}

// Said once a run: the chord stands for the dictation key, which the portal cannot bind alone.
void GlobalShortcutsKeyMonitor::announceTrigger(const QVariant& boundShortcuts)
{
    QString trigger = defaultTriggerLabel;
    QList<PortalShortcut> bound;
    boundShortcuts.value<QDBusArgument>() >> bound;
    for (const PortalShortcut& shortcut : bound) {
        const QString description = shortcut.properties.value(QStringLiteral("trigger_description")).toString();
        if (shortcut.id == shortcutId && !description.isEmpty())
            trigger = description;
    }
    if (m_triggerAnnounced)
        return;
    m_triggerAnnounced = true;
    qCInfo(lcHotkey).noquote() << "global shortcut bound through the desktop portal: hold" << trigger << "to dictate (it stands for"
                               << m_dictationKey().label() + QStringLiteral(", which the portal cannot bind alone)");
}

void GlobalShortcutsKeyMonitor::closeSession(const QString& handle)
{
    if (handle.isEmpty())
        return;
    QDBusConnection::sessionBus().asyncCall(QDBusMessage::createMethodCall(
        PortalNames::service, handle, QStringLiteral("org.freedesktop.portal.Session"), QStringLiteral("Close")));
}

void GlobalShortcutsKeyMonitor::connectSignals(bool connect)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    for (const QString& name : {QStringLiteral("Activated"), QStringLiteral("Deactivated")}) {
        if (connect)
            bus.connect(
                PortalNames::service, PortalNames::objectPath, shortcutsInterface, name, this, SLOT(onShortcutSignal(QDBusMessage)));
        else
            bus.disconnect(
                PortalNames::service, PortalNames::objectPath, shortcutsInterface, name, this, SLOT(onShortcutSignal(QDBusMessage)));
    }
}

void GlobalShortcutsKeyMonitor::onShortcutSignal(const QDBusMessage& signal)
{
    const QVariantList arguments = signal.arguments();
    if (signal.signature() != QLatin1String("osta{sv}") || m_sessionHandle.isEmpty())
        return;
    if (arguments.at(0).value<QDBusObjectPath>().path() == m_sessionHandle && arguments.at(1).toString() == shortcutId)
        deliver(signal.member() == QLatin1String("Activated"));
}

// The portal's time stamp has no origin the other key sources share: the hold is measured on the
// monotonic clock, as for compositor bindings. A release answers the key its press stood for, even
// if another dictation key was chosen in between.
void GlobalShortcutsKeyMonitor::deliver(bool down)
{
    if (down)
        m_heldKey = m_dictationKey();
    if (!m_heldKey)
        return;
    const HotKey key = *m_heldKey;
    if (!down)
        m_heldKey.reset();
    m_handlers.deliver(FlagsChangedEvent{key.keyCode(), down ? key.modifierFlag() : 0, std::nullopt});
}
