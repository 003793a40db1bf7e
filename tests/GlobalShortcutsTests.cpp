// The dictation key held through GNOME's GlobalShortcuts portal and KDE's kglobalaccel: stand-ins on a
// dbus-daemon of our own check each call's signature and answer as they do (Response even before the reply).
#include "Platform/Linux/KDE/KGlobalAccelKeyMonitor.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/Portal/GlobalShortcutsKeyMonitor.h"
#include "Platform/Linux/Portal/PortalShortcut.h"
#include "Shared/AppPaths.h"
#include "TestSupport.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>

using namespace std::chrono_literals;

namespace {

const QString shortcutsInterface = "org.freedesktop.portal.GlobalShortcuts";

// The portal's side: what it was asked, in order, and how it answers.
class FakePortal final : public QDBusVirtualObject {
public:
    static inline const QString name = "org.freedesktop.portal.Desktop";
    static inline const QString path = "/org/freedesktop/portal/desktop";

    explicit FakePortal(QDBusConnection bus)
        : m_bus(std::move(bus))
    {
    }

    bool offersShortcuts = true, offersRegistry = true;
    uint bindAnswer = 0;
    QString triggerDescription = "Ctrl+Alt+Espaço (escolhido no diálogo)";

    QStringList calls; // "Interface.Method", with the application id for Registry.Register
    QList<PortalShortcut> boundShortcuts;
    QStringList sessions, closedSessions;

    QString introspect(const QString&) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        const QString call = message.interface().section(QLatin1Char('.'), -1) + QLatin1Char('.') + message.member();
        if (message.interface() == QLatin1String("org.freedesktop.host.portal.Registry") && !offersRegistry)
            return connection.send(message.createErrorReply(QDBusError::UnknownInterface, "no registry here"));
        // GlobalShortcuts' "version" property, where the portal has the interface.
        if (message.interface() == QLatin1String("org.freedesktop.DBus.Properties"))
            return connection.send(offersShortcuts && message.member() == QLatin1String("Get") && message.signature() == QLatin1String("ss")
                        && message.arguments() == QVariantList{shortcutsInterface, "version"}
                    ? message.createReply(QVariant::fromValue(QDBusVariant(uint(1))))
                    : message.createErrorReply(QDBusError::UnknownProperty, "no such property"));
        const std::map<QString, QString> signatures{{"Registry.Register", "sa{sv}"}, {"GlobalShortcuts.CreateSession", "a{sv}"},
            {"GlobalShortcuts.BindShortcuts", "oa(sa{sv})sa{sv}"}, {"Session.Close", QString()}};
        const auto expected = signatures.find(call);
        if (expected == signatures.end() || expected->second != message.signature())
            return connection.send(message.createErrorReply(QDBusError::InvalidArgs, call + QLatin1Char(' ') + message.signature()));
        const bool registering = call == QLatin1String("Registry.Register");
        calls << (registering ? call + QLatin1Char(' ') + message.arguments().at(0).toString() : call);
        if (call == QLatin1String("Session.Close"))
            closedSessions << message.path();
        if (registering || call == QLatin1String("Session.Close"))
            return connection.send(message.createReply());
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
        QDBusMessage signal = QDBusMessage::createSignal(path, shortcutsInterface, down ? "Activated" : "Deactivated");
        signal << QVariant::fromValue(QDBusObjectPath(session)) << id << qulonglong(1234) << QVariantMap();
        m_bus.send(signal);
    }

private:
    static QString handle(const QDBusMessage& message, const QString& kind, const QString& token)
    {
        QString sender = message.service().mid(1);
        sender.replace(QLatin1Char('.'), QLatin1Char('_'));
        return QStringLiteral("%1/%2/%3/%4").arg(path, kind, sender, token);
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

// A session bus of this program's own for its whole life, started before main: Qt keeps its
// session-bus connection once made, and the application object may make it.
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
        bus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(TestBus::address, Service::name));
        ASSERT_TRUE(bus->isConnected());
        service = std::make_unique<Service>(*bus);
        ASSERT_TRUE(bus->registerVirtualObject(Service::path, service.get(), QDBusConnection::SubPath));
        ASSERT_TRUE(bus->registerService(Service::name));
    }

    void TearDown() override
    {
        bus->unregisterService(Service::name);
        bus->unregisterObject(Service::path, QDBusConnection::UnregisterTree);
        QDBusConnection::disconnectFromBus(Service::name);
    }

    // A handler that writes down every event as "keyCode/flags".
    KeyMonitor::Token record(KeyMonitor& monitor)
    {
        return monitor.addMonitor([this](const FlagsChangedEvent& event) {
            events << QStringLiteral("%1/0x%2").arg(event.keyCode).arg(event.modifierFlags, 0, 16);
        });
    }

    std::unique_ptr<QDBusConnection> bus;
    std::unique_ptr<Service> service;
    QStringList events;
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
    EXPECT_EQ(service->calls,
        (QStringList{"Registry.Register " + AppPaths::applicationId(), "GlobalShortcuts.CreateSession", "GlobalShortcuts.BindShortcuts"}));
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
    EXPECT_EQ(service->calls.filter("Registry.Register").size(), 1);
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
    GlobalShortcutsKeyMonitor monitor([] { return HotKey::rightOption; });
    record(monitor);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return hotkeyLog.join('\n').contains(service->triggerDescription); }))
        << hotkeyLog.join('\n').toStdString();
    EXPECT_EQ(service->calls, (QStringList{"GlobalShortcuts.CreateSession", "GlobalShortcuts.BindShortcuts"}));
    service->bindAnswer = 1;
    GlobalShortcutsKeyMonitor refused([] { return HotKey::rightOption; });
    record(refused);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return hotkeyLog.join('\n').contains("was not allowed"); }))
        << hotkeyLog.join('\n').toStdString();
    EXPECT_TRUE(TestSupport::waitUntil([&] { return service->closedSessions.contains(service->sessions.last()); }))
        << "a session without its shortcut stays open";
    service->press(service->sessions.last(), "dictation", true);
    TestSupport::spin(100ms);
    EXPECT_TRUE(events.isEmpty());
    qInstallMessageHandler(nullptr);
    hotkeyLog.clear();
}

TEST_F(Portal, GnomeOnWaylandHearsTheDictationKeyThroughThePortal)
{
    const SessionInfo gnome{SessionInfo::Kind::wayland, SessionInfo::Compositor::gnome, false};
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

// The key itself where KDE sees it alone, and the chord where it does not (Right Alt is Alt_R in the
// US layout); both registered again at once when kglobalaccel restarts, and replaced when another
// key is chosen.
TEST_F(KGlobalAccel, TheKeyAndTheChordAreBoundAndBoundAgainWhenKGlobalAccelComesBack)
{
    const int chord = (Qt::ControlModifier | Qt::AltModifier | Qt::Key_Space).toCombined();
    HotKey chosen = HotKey::rightOption;
    KGlobalAccelKeyMonitor monitor([&] { return chosen; });
    ASSERT_NE(record(monitor), 0u);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return service->assigned.size() == 1; }));
    EXPECT_EQ(service->assigned[0], (QList<int>{Qt::Key_AltGr, chord}));
    EXPECT_EQ(KGlobalAccelKeyMonitor::shortcutsFor(HotKey::fn), QList<int>{chord}) << "fn has the chord alone";

    // kglobalaccel restarted (another copy takes its name) has forgotten the shortcut.
    ASSERT_TRUE(bus->unregisterService(FakeKGlobalAccel::name));
    TestSupport::spin(100ms);
    ASSERT_TRUE(bus->registerService(FakeKGlobalAccel::name));
    ASSERT_TRUE(TestSupport::waitUntil([&] { return service->assigned.size() == 2; })) << "the shortcut was not registered again";
    EXPECT_EQ(service->assigned[1], service->assigned[0]);
    service->press(true);
    service->press(false);
    ASSERT_TRUE(TestSupport::waitUntil([&] { return events.size() == 2; }));
    EXPECT_EQ(events, (QStringList{"61/0x80000", "61/0x0"}));

    chosen = HotKey::rightCommand;
    monitor.dictationKeyChanged();
    ASSERT_TRUE(TestSupport::waitUntil([&] { return service->assigned.size() == 3; })) << "the new key was not bound";
    EXPECT_EQ(service->assigned[2], KGlobalAccelKeyMonitor::shortcutsFor(HotKey::rightCommand));
    TestSupport::spin(200ms); // the answers come back, and the calls waiting for them are freed
}
