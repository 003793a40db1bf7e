// The dictation key held through the desktops' global shortcut services, against stand-ins on a
// session bus of the test's own (a real dbus-daemon): xdg-desktop-portal's GlobalShortcuts (GNOME)
// and kglobalaccel (KDE). The stand-ins check every call's name and D-Bus signature as the services'
// interfaces define them, and answer the way the services do: the portal a request object at once
// and its Response signal (here even before the reply), then Activated and Deactivated for the bound
// shortcut; kglobalaccel the keys it assigned, then pressed and released from the component.
#include "Platform/Linux/KDE/KGlobalAccelKeyMonitor.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Portal/GlobalShortcutsKeyMonitor.h"
#include "Platform/Linux/Portal/PortalShortcut.h"
#include "Shared/AppPaths.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>

using namespace std::chrono_literals;

namespace {

const QString portalPath = "/org/freedesktop/portal/desktop";
const QString shortcutsInterface = "org.freedesktop.portal.GlobalShortcuts";

// The portal's side: what it was asked, in order, and how it answers.
class FakePortal final : public QDBusVirtualObject {
public:
    static inline const QString name = "org.freedesktop.portal.Desktop";
    static inline const QString path = portalPath;

    explicit FakePortal(QDBusConnection bus)
        : m_bus(std::move(bus))
    {
    }

    bool offersShortcuts = true;
    bool offersRegistry = true;
    uint bindAnswer = 0;
    QString triggerDescription = "Ctrl+Alt+Espaço (escolhido no diálogo)";

    QStringList calls; // "Interface.Method"
    QString registeredAppId;
    QList<PortalShortcut> boundShortcuts;
    QStringList sessions;
    QStringList closedSessions;

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        const QString call = message.interface().section(QLatin1Char('.'), -1) + QLatin1Char('.') + message.member();
        if (message.interface() == QLatin1String("org.freedesktop.host.portal.Registry") && !offersRegistry)
            return connection.send(message.createErrorReply(QDBusError::UnknownInterface, "no registry here"));
        if (message.interface() == QLatin1String("org.freedesktop.DBus.Properties"))
            return connection.send(version(message));
        const std::map<QString, QString> signatures{{"Registry.Register", "sa{sv}"}, {"GlobalShortcuts.CreateSession", "a{sv}"},
            {"GlobalShortcuts.BindShortcuts", "oa(sa{sv})sa{sv}"}, {"Session.Close", QString()}};
        const auto expected = signatures.find(call);
        if (expected == signatures.end() || expected->second != message.signature())
            return connection.send(message.createErrorReply(QDBusError::InvalidArgs, call + QLatin1Char(' ') + message.signature()));
        calls << call;
        if (call == QLatin1String("Registry.Register")) {
            registeredAppId = message.arguments().at(0).toString();
            return connection.send(message.createReply());
        }
        if (call == QLatin1String("Session.Close")) {
            closedSessions << message.path();
            return connection.send(message.createReply());
        }
        const QVariantMap options = qdbus_cast<QVariantMap>(message.arguments().last());
        const QString request = handle(message, "request", options.value("handle_token").toString());
        if (call == QLatin1String("GlobalShortcuts.CreateSession")) {
            const QString session = handle(message, "session", options.value("session_handle_token").toString());
            sessions << session;
            respond(request, 0, {{"session_handle", session}});
        } else {
            boundShortcuts.clear();
            message.arguments().at(1).value<QDBusArgument>() >> boundShortcuts;
            QList<PortalShortcut> bound;
            for (const PortalShortcut& shortcut : std::as_const(boundShortcuts))
                bound << PortalShortcut{shortcut.id, {{"trigger_description", triggerDescription}}};
            respond(request, bindAnswer, {{"shortcuts", QVariant::fromValue(bound)}});
        }
        return connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));
    }

    void press(const QString& session, const QString& id, bool down)
    {
        QDBusMessage signal = QDBusMessage::createSignal(portalPath, shortcutsInterface, down ? "Activated" : "Deactivated");
        signal << QVariant::fromValue(QDBusObjectPath(session)) << id << qulonglong(1234) << QVariantMap();
        m_bus.send(signal);
    }

private:
    // GlobalShortcuts' "version" property, where the portal has the interface.
    QDBusMessage version(const QDBusMessage& get) const
    {
        if (get.member() != QLatin1String("Get") || get.signature() != QLatin1String("ss") || !offersShortcuts
            || get.arguments() != QVariantList{shortcutsInterface, "version"})
            return get.createErrorReply(QDBusError::UnknownProperty, "no such property");
        return get.createReply(QVariant::fromValue(QDBusVariant(uint(1))));
    }

    static QString handle(const QDBusMessage& message, const QString& kind, const QString& token)
    {
        QString sender = message.service().mid(1);
        sender.replace(QLatin1Char('.'), QLatin1Char('_'));
        return QStringLiteral("%1/%2/%3/%4").arg(portalPath, kind, sender, token);
    }

    void respond(const QString& request, uint response, const QVariantMap& results)
    {
        QDBusMessage signal = QDBusMessage::createSignal(request, "org.freedesktop.portal.Request", "Response");
        signal << response << results;
        m_bus.send(signal);
    }

    QDBusConnection m_bus;
};

// kglobalaccel's side: the keys each setShortcut gave our action.
class FakeKGlobalAccel final : public QDBusVirtualObject {
public:
    static inline const QString name = "org.kde.kglobalaccel";
    static inline const QString path = "/kglobalaccel";

    explicit FakeKGlobalAccel(QDBusConnection bus)
        : m_bus(std::move(bus))
    {
    }

    QList<QList<int>> assigned;
    QStringList component;

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        const std::map<QString, QString> signatures{{"doRegister", "as"}, {"setShortcut", "asaiu"}, {"setInactive", "as"}};
        const auto expected = signatures.find(message.member());
        if (message.interface() != QLatin1String("org.kde.KGlobalAccel") || expected == signatures.end()
            || expected->second != message.signature())
            return connection.send(message.createErrorReply(QDBusError::InvalidArgs, message.member() + message.signature()));
        if (message.member() != QLatin1String("setShortcut"))
            return connection.send(message.createReply());
        component = message.arguments().at(0).toStringList();
        assigned << qdbus_cast<QList<int>>(message.arguments().at(1));
        return connection.send(message.createReply(QVariant::fromValue(assigned.last())));
    }

    void press(bool down)
    {
        QDBusMessage signal = QDBusMessage::createSignal(
            "/component/app_voxaria_Voxaria", "org.kde.kglobalaccel.Component", down ? "globalShortcutPressed" : "globalShortcutReleased");
        signal << component.value(0) << component.value(1) << qlonglong(1234);
        m_bus.send(signal);
    }

private:
    QDBusConnection m_bus;
};

// A session bus of this test program's own, in place of the user's, for the program's whole life.
// It is started before main: Qt keeps its session-bus connection once made, and the application
// object may make it as it starts.
class TestBus : public ::testing::Environment {
public:
    TestBus()
    {
        FILE* launcher = popen("dbus-daemon --session --fork --print-address=1 --print-pid=1", "r");
        if (!launcher)
            return;
        char line[512] = {};
        if (fgets(line, sizeof line, launcher))
            address = QString::fromUtf8(line).trimmed();
        if (fgets(line, sizeof line, launcher))
            m_pid = QByteArray(line).trimmed().toInt();
        pclose(launcher);
        qputenv("DBUS_SESSION_BUS_ADDRESS", address.toUtf8());
    }

    void TearDown() override
    {
        if (m_pid > 0)
            ::kill(m_pid, SIGTERM);
    }

    static inline QString address;

private:
    pid_t m_pid = 0;
};

const ::testing::Environment* const testBus = ::testing::AddGlobalTestEnvironment(new TestBus);

// One stand-in service, `Service`, on its own connection to the test's bus.
template <typename Service> class OnTestBus : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(TestBus::address.isEmpty()) << "dbus-daemon did not start (install dbus-daemon: scripts/install-deps.sh)";
        PortalShortcut::registerType();
        m_bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(TestBus::address, Service::name));
        ASSERT_TRUE(m_bus->isConnected());
        service = std::make_unique<Service>(*m_bus);
        ASSERT_TRUE(m_bus->registerVirtualObject(Service::path, service.get(), QDBusConnection::SubPath));
        ASSERT_TRUE(m_bus->registerService(Service::name));
    }

    void TearDown() override
    {
        m_bus->unregisterService(Service::name);
        m_bus->unregisterObject(Service::path, QDBusConnection::UnregisterTree);
        QDBusConnection::disconnectFromBus(Service::name);
    }

    // The service ends and another copy takes its name, as when it is restarted.
    void restartService()
    {
        ASSERT_TRUE(m_bus->unregisterService(Service::name));
        TestSupport::spin(100ms);
        ASSERT_TRUE(m_bus->registerService(Service::name));
    }

    // A handler that writes down every event as "keyCode/flags".
    KeyMonitor::Token record(KeyMonitor& monitor)
    {
        return monitor.addMonitor([this](const FlagsChangedEvent& event) {
            events << QStringLiteral("%1/0x%2").arg(event.keyCode).arg(event.modifierFlags, 0, 16);
        });
    }

    std::unique_ptr<Service> service;
    QStringList events;

private:
    std::unique_ptr<QDBusConnection> m_bus;
};

}

using Portal = OnTestBus<FakePortal>;
using KGlobalAccel = OnTestBus<FakeKGlobalAccel>;

TEST_F(Portal, TheChordHeldAndLetGoIsThePressAndReleaseOfTheDictationKey)
{
    HotKey chosen = HotKey::rightOption;
    GlobalShortcutsKeyMonitor monitor([&chosen] { return chosen; });
    const KeyMonitor::Token token = record(monitor);
    ASSERT_NE(token, 0u);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return service->calls.contains("GlobalShortcuts.BindShortcuts"); }))
        << service->calls.join(' ').toStdString();

    // The program says who it is before any other portal call, then opens a session and proposes the chord.
    EXPECT_EQ(service->calls, (QStringList{"Registry.Register", "GlobalShortcuts.CreateSession", "GlobalShortcuts.BindShortcuts"}));
    EXPECT_EQ(service->registeredAppId, AppPaths::applicationId());
    ASSERT_EQ(service->boundShortcuts.size(), 1);
    EXPECT_EQ(service->boundShortcuts[0].properties.value("preferred_trigger").toString(), "CTRL+ALT+space");
    EXPECT_FALSE(service->boundShortcuts[0].properties.value("description").toString().isEmpty());
    const QString session = service->sessions.value(0);
    const QString id = service->boundShortcuts[0].id;

    // Another session's or another shortcut's activations are not ours.
    service->press(session + "x", id, true);
    service->press(session, id + "x", true);
    service->press(session, id, true);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return !events.isEmpty(); }));
    // A release stands for the key that was pressed, even when another key was chosen meanwhile.
    chosen = HotKey::rightCommand;
    service->press(session, id, false);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return events.size() >= 2; }));
    TestSupport::spin(100ms);
    EXPECT_EQ(events, (QStringList{"61/0x80000", "61/0x0"}));

    // The last handler gone, the session closes and an activation that still comes is not delivered.
    monitor.removeMonitor(token);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return service->closedSessions == QStringList{session}; }));
    service->press(session, id, true);
    TestSupport::spin(100ms);
    EXPECT_EQ(events.size(), 2);

    // Watching again opens a new session (a session binds once); the program registered already.
    record(monitor);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return service->calls.count("GlobalShortcuts.BindShortcuts") == 2; }));
    EXPECT_EQ(service->calls.count("Registry.Register"), 1);
    ASSERT_EQ(service->sessions.size(), 2);
    service->press(service->sessions[1], id, true);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return events.size() == 3; }));
    EXPECT_EQ(events.last(), "54/0x100000");
}

QStringList hotkeyLog;

TEST_F(Portal, APortalWithoutTheRegistryStillBindsAndTheUserIsToldWhichChordToHoldOrThatItWasRefused)
{
    service->offersRegistry = false;
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext& context, const QString& message) {
        if (QLatin1String(context.category) == QLatin1String("voxaria.hotkey"))
            hotkeyLog << message;
    });
    {
        GlobalShortcutsKeyMonitor monitor([] { return HotKey::rightOption; });
        record(monitor);
        EXPECT_TRUE(TestSupport::waitUntil([&] { return hotkeyLog.join('\n').contains(service->triggerDescription); }))
            << hotkeyLog.join('\n').toStdString();
        EXPECT_EQ(service->calls, (QStringList{"GlobalShortcuts.CreateSession", "GlobalShortcuts.BindShortcuts"}));
    }
    service->bindAnswer = 1;
    {
        GlobalShortcutsKeyMonitor monitor([] { return HotKey::rightOption; });
        record(monitor);
        EXPECT_TRUE(TestSupport::waitUntil([&] { return hotkeyLog.join('\n').contains("was not allowed"); }))
            << hotkeyLog.join('\n').toStdString();
        EXPECT_TRUE(TestSupport::waitUntil([&] { return service->closedSessions.contains(service->sessions.last()); }))
            << "a session without its shortcut stays open";
        service->press(service->sessions.last(), "dictation", true);
        TestSupport::spin(100ms);
        EXPECT_TRUE(events.isEmpty());
    }
    qInstallMessageHandler(nullptr);
    hotkeyLog.clear();
}

TEST_F(Portal, GnomeOnWaylandHearsTheDictationKeyThroughThePortal)
{
    SessionInfo gnome;
    gnome.kind = SessionInfo::Kind::wayland;
    gnome.compositor = SessionInfo::Compositor::gnome;
    const auto ready = [](LinuxPlatform& platform) {
        bool chosen = false;
        platform.whenReady([&] { chosen = true; });
        return TestSupport::waitUntil([&] { return chosen; });
    };
    LinuxPlatform platform(gnome, [] { return HotKey::rightOption; });
    ASSERT_TRUE(ready(platform));
    EXPECT_TRUE(platform.keySource().description.startsWith("GlobalShortcuts portal")) << platform.keySource().description.toStdString();
    EXPECT_TRUE(platform.keySource().works);
    EXPECT_EQ(platform.keySource().chord, "Ctrl+Alt+Espaço");

    // A portal without global shortcuts (GNOME 47 and older) holds no key: the keyboards are read.
    service->offersShortcuts = false;
    LinuxPlatform older(gnome, [] { return HotKey::rightOption; });
    ASSERT_TRUE(ready(older));
    EXPECT_FALSE(older.keySource().description.contains("portal")) << older.keySource().description.toStdString();
    EXPECT_TRUE(older.keySource().chord.isEmpty());
}

// In every layout something holds the key: the key itself where KDE sees it alone, and the chord
// (Right Alt is Alt_R in the US layout, which never fires a global shortcut). When kglobalaccel
// restarts, it has forgotten the shortcut: it is registered again at once.
TEST_F(KGlobalAccel, TheKeyAndTheChordAreBoundAndBoundAgainWhenKGlobalAccelComesBack)
{
    const int chord = (Qt::ControlModifier | Qt::AltModifier | Qt::Key_Space).toCombined();
    KGlobalAccelKeyMonitor monitor([] { return HotKey::rightOption; });
    ASSERT_NE(record(monitor), 0u);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return service->assigned.size() == 1; }));
    EXPECT_EQ(service->assigned[0], (QList<int>{Qt::Key_AltGr, chord}));
    EXPECT_EQ(KGlobalAccelKeyMonitor::shortcutsFor(HotKey::fn), QList<int>{chord}) << "fn has the chord alone";

    service->press(true);
    service->press(false);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return events.size() == 2; }));
    EXPECT_EQ(events, (QStringList{"61/0x80000", "61/0x0"}));

    restartService();
    ASSERT_TRUE(TestSupport::waitUntil([&] { return service->assigned.size() == 2; })) << "the shortcut was not registered again";
    EXPECT_EQ(service->assigned[1], service->assigned[0]);
    service->press(true);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return events.size() == 3; }));
}
