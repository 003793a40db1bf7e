#include "LinuxPlatform.h"

#include "Platform/CombinedKeyMonitor.h"
#include "Platform/Linux/Desktop/GnomeShellVersion.h"
#include "Platform/Linux/Input/BindingKeyMonitor.h"
#include "Platform/Linux/Input/EvdevKeyMonitor.h"
#include "Platform/Linux/KDE/KGlobalAccelKeyMonitor.h"
#include "Platform/Linux/Portal/GlobalShortcutsKeyMonitor.h"
#include "Platform/Linux/Wayland/CompositorFrontApplication.h"
#include "Platform/Linux/Wayland/DataControlPasteboard.h"
#include "Platform/Linux/Wayland/FakeInputKeyPoster.h"
#include "Platform/Linux/Wayland/VirtualKeyboardKeyPoster.h"
#include "Platform/Linux/Wayland/WaylandClient.h"
#include "Platform/Linux/X11/X11AccessibilityTrust.h"
#include "Platform/Linux/X11/X11ClipboardPasteboard.h"
#include "Platform/Linux/X11/X11FrontApplication.h"
#include "Platform/Linux/X11/XInputKeyMonitor.h"
#include "Platform/Linux/X11/XTestKeyPoster.h"
#include "Shared/AppPaths.h"
#include "Shared/Logging.h"

#include <QCoreApplication>
#include <QTimer>

namespace {

using Compositor = SessionInfo::Compositor;

// From this version on, GNOME hands a paste XWayland synthesises (XTEST) to every window, its own
// Wayland windows included, once the user has allowed it in the dialog GNOME shows at the first
// paste of every run of the program; before, such a paste reaches X11 windows only.
constexpr int firstGnomeForwardingXTest = 45;

QString commandSocketPath()
{
    return AppPaths::runtimeFile(QStringLiteral(".commands"));
}

// On Wayland nothing is granted: a dictation can work once the chosen key source sees the key (the
// text arrives by paste or by copy, whichever the compositor allows).
class KeySourceTrust final : public AccessibilityTrust {
public:
    explicit KeySourceTrust(SessionPlatform::KeySource source)
        : m_source(std::move(source))
    {
    }

    bool isTrusted(bool prompt) override
    {
        if (!m_source.works && prompt)
            qCWarning(lcDictation).noquote() << "the dictation key cannot be seen through" << m_source.description;
        return m_source.works;
    }

private:
    SessionPlatform::KeySource m_source;
};

const char* routeDescription(SessionPlatform::PasteRoute route, Compositor compositor)
{
    switch (route) {
    case SessionPlatform::PasteRoute::copyOnly: return "only copied to the clipboard";
    case SessionPlatform::PasteRoute::compositor:
        return compositor == Compositor::kde ? "pasted through data-control and KWin's fake input"
                                             : "pasted through data-control and a virtual keyboard";
    case SessionPlatform::PasteRoute::xwayland:
        return "pasted through the X11 clipboard and XTEST (GNOME asks to allow it at every start of the program)";
    case SessionPlatform::PasteRoute::x11: break;
    }
    return "pasted through the X11 clipboard";
}

}

LinuxPlatform::LinuxPlatform(const SessionInfo& session, std::function<HotKey()> dictationKey)
    : m_session(session)
    , m_commands(std::make_shared<CommandSocket>(commandSocketPath()))
    , m_wayland(session.kind == SessionInfo::Kind::wayland ? WaylandClient::connect() : nullptr)
{
    chooseClipboardAndKeys();
    if (session.kind == SessionInfo::Kind::wayland && session.compositor == Compositor::gnome) {
        GlobalShortcutsKeyMonitor::askAvailability(&m_replies, [this, dictationKey](bool available) {
            chooseKeySource(dictationKey, available);
            if (std::function<void()> ready = std::exchange(m_whenReady, nullptr))
                ready();
        });
    } else {
        chooseKeySource(std::move(dictationKey), false);
    }
}

void LinuxPlatform::whenReady(std::function<void()> ready)
{
    if (m_ready)
        QTimer::singleShot(0, &m_replies, std::move(ready));
    else
        m_whenReady = std::move(ready);
}

LinuxPlatform::~LinuxPlatform() = default;

void LinuxPlatform::chooseKeySource(std::function<HotKey()> dictationKey, bool portalShortcuts)
{
    std::vector<std::unique_ptr<KeyMonitor>> sources;
    QStringList chosen;
    const auto use = [&](const QString& name, std::unique_ptr<KeyMonitor> source) {
        chosen << name;
        sources.push_back(std::move(source));
    };
    const bool wayland = m_session.kind == SessionInfo::Kind::wayland;
    if (m_session.kind == SessionInfo::Kind::x11)
        use(QStringLiteral("XInput2"), std::make_unique<XInputKeyMonitor>());
    // KDE binds most dictation keys as global shortcuts; a key it cannot tell alone (Fn) still comes
    // through the sources below.
    QString chord;
    if (wayland && m_session.compositor == Compositor::kde && KGlobalAccelKeyMonitor::isAvailable()) {
        use(QStringLiteral("kglobalaccel"), std::make_unique<KGlobalAccelKeyMonitor>(dictationKey));
        chord = KGlobalAccelKeyMonitor::chordLabel;
    }
    // GNOME's portal binds a chord that stands for the dictation key; the alert and the log show it.
    if (wayland && m_session.compositor == Compositor::gnome && portalShortcuts) {
        use(QStringLiteral("GlobalShortcuts portal (%1)").arg(GlobalShortcutsKeyMonitor::defaultTriggerLabel),
            std::make_unique<GlobalShortcutsKeyMonitor>(dictationKey));
        chord = GlobalShortcutsKeyMonitor::defaultTriggerLabel;
    }
    if (wayland && m_session.compositor == Compositor::wlroots) {
        use(QStringLiteral("compositor bindings"), std::make_unique<BindingKeyMonitor>(m_commands, [dictationKey] {
            const HotKey key = dictationKey();
            return ModifierKey{key.keyCode(), key.modifierFlag()};
        }));
    }
    // The keyboards themselves, wherever this user may read them: they hear the lone key the
    // shortcut services cannot bind.
    if (wayland && EvdevKeyMonitor::canRead())
        use(QStringLiteral("/dev/input"), std::make_unique<EvdevKeyMonitor>());
    // KWin hands modifier changes to XWayland clients even while a Wayland window has the focus.
    if (wayland && m_session.compositor == Compositor::kde && m_session.hasXDisplay)
        use(QStringLiteral("XInput2"), std::make_unique<XInputKeyMonitor>());
    const bool works = !sources.empty();
    // With nothing that can hear the key, the keyboards' monitor explains, when it is asked to
    // watch, how to be allowed.
    if (!works)
        use(QStringLiteral("/dev/input"), std::make_unique<EvdevKeyMonitor>());
    const QString description = chosen.join(QStringLiteral(" + "));
    qCInfo(lcHotkey).noquote() << "session:" << m_session.description() << "- dictation key through" << description;
    m_keyMonitor = sources.size() == 1 ? std::move(sources.front()) : std::make_unique<CombinedKeyMonitor>(std::move(sources));
    m_keySource = {description, works, chord};
    m_ready = true;
}

void LinuxPlatform::chooseClipboardAndKeys()
{
    // The compositor's own clipboard wherever it offers data-control (sway, Hyprland, KWin): native
    // windows see it, also while an X11 window has the focus.
    if (m_wayland && m_wayland->dataControl()) {
        auto dataControl = std::make_shared<DataControlPasteboard>(m_wayland);
        if (dataControl->isAvailable())
            m_pasteboard = dataControl;
    }
    if (!m_pasteboard)
        m_pasteboard = std::make_shared<X11ClipboardPasteboard>();

    // KWin takes the paste keys from its fake input, for a program a desktop file allows. Elsewhere
    // one virtual keyboard for the program's life: each new one is announced to every client. Only
    // GNOME takes a paste through XWayland; on other Wayland sessions an XTEST paste would reach
    // only X11 windows, so without the compositor's protocols nothing is synthesised at all.
    if (m_session.kind == SessionInfo::Kind::wayland && m_session.compositor == Compositor::kde) {
        m_keyPoster = std::make_shared<FakeInputKeyPoster>(m_wayland && m_wayland->dataControl() ? m_wayland : nullptr);
        if (m_wayland && !m_wayland->fakeInput())
            logMissingFakeInput();
    } else if (m_session.kind == SessionInfo::Kind::wayland && m_session.compositor != Compositor::gnome) {
        const bool pastes = m_wayland && m_wayland->dataControl() && m_wayland->virtualKeyboards();
        m_keyPoster = std::make_shared<VirtualKeyboardKeyPoster>(pastes ? m_wayland : nullptr);
    } else {
        m_keyPoster = std::make_shared<XTestKeyPoster>();
    }

    if (m_session.kind == SessionInfo::Kind::wayland && m_session.compositor == Compositor::gnome && m_session.hasXDisplay) {
        // Whether GNOME takes the paste depends on its version, which the shell tells a moment after
        // start-up; until then the text is only copied, never pasted into nowhere.
        m_pasteRoute = PasteRoute::copyOnly;
        qCInfo(lcInsert).noquote() << "session:" << m_session.description()
                                   << "- dictated text only copied until GNOME Shell says its version";
        GnomeShellVersion::ask(&m_replies, [this](std::optional<int> major) { choosePasteRoute(major); });
        return;
    }
    choosePasteRoute(std::nullopt);
}

void LinuxPlatform::choosePasteRoute(std::optional<int> gnomeShellMajor)
{
    m_pasteRoute
        = pasteRouteFor(m_session, gnomeShellMajor, [this] { return m_keyPoster->makeKeyEvent(KeyPoster::virtualKeyV, true).has_value(); });
    qCInfo(lcInsert).noquote() << "session:" << m_session.description() << "- dictated text"
                               << routeDescription(m_pasteRoute, m_session.compositor);
}

// KWin decides by the program's real path, which a build-folder run or a copy elsewhere does not
// share with the installed desktop file.
void LinuxPlatform::logMissingFakeInput()
{
    qCWarning(lcInsert).noquote()
        << "KWin does not offer org_kde_kwin_fake_input to" << QCoreApplication::applicationFilePath()
        << "- it needs an installed desktop file (the package's" << AppPaths::applicationId() + QStringLiteral(".desktop)")
        << "with X-KDE-Wayland-Interfaces=org_kde_kwin_fake_input whose Exec= names that path; dictated text is only copied";
}

SessionPlatform::PasteRoute LinuxPlatform::pasteRouteFor(
    const SessionInfo& session, std::optional<int> gnomeShellMajor, const std::function<bool()>& canSynthesisePaste)
{
    if (session.kind == SessionInfo::Kind::x11)
        return PasteRoute::x11;
    if (session.compositor == Compositor::wlroots || session.compositor == Compositor::kde)
        return canSynthesisePaste() ? PasteRoute::compositor : PasteRoute::copyOnly;
    if (session.compositor == Compositor::gnome && session.hasXDisplay && gnomeShellMajor.value_or(0) >= firstGnomeForwardingXTest)
        return canSynthesisePaste() ? PasteRoute::xwayland : PasteRoute::copyOnly;
    return PasteRoute::copyOnly;
}

SessionPlatform::Wording LinuxPlatform::wordingFor(const SessionInfo& session, PasteRoute route)
{
    Wording wording;
    wording.pasteRoute = QStringLiteral("X11 (XWayland)");
    if (route == PasteRoute::copyOnly)
        wording.pasteRoute = QStringLiteral("copiar apenas (cole com Ctrl+V)");
    else if (route == PasteRoute::compositor && session.compositor == Compositor::kde)
        wording.pasteRoute = QStringLiteral("data-control + entrada sintética do KWin");
    else if (route == PasteRoute::compositor)
        wording.pasteRoute = QStringLiteral("wlr data-control + teclado virtual");
    if (session.compositor == Compositor::gnome)
        wording.pasteNote = route == PasteRoute::copyOnly
            ? QStringLiteral("O GNOME só aceita a colagem do Voxaria a partir da versão 45: aqui o texto ditado fica copiado para você "
                             "colar com Ctrl+V.")
            : QStringLiteral("Na primeira colagem, a cada início do Voxaria, o GNOME pergunta se permite o controle remoto do teclado: "
                             "permita, pois é assim que o Voxaria cola o texto ditado no aplicativo em uso.");
    wording.keySourceRemedy = session.compositor == Compositor::gnome
        ? QStringLiteral(". No GNOME 48 ou mais novo, o portal de atalhos globais (xdg-desktop-portal) dispensa o grupo: "
                         "com ele, o Voxaria registra um atalho para segurar no lugar da tecla. ")
        : QStringLiteral(", ou use uma sessão X11. ");
    return wording;
}

// Qt prefers Wayland on a Wayland session. Where XWayland is there, Voxaria's windows go through it
// instead, so the HUD stays an overlay no window manager places or focuses; only keys, clipboard
// and paste speak Wayland. A user's own QT_QPA_PLATFORM still wins.
void LinuxPlatform::preferXWaylandForWindows(const SessionInfo& session)
{
    if (session.kind == SessionInfo::Kind::wayland && session.hasXDisplay && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "xcb");
}

std::unique_ptr<KeyMonitor> LinuxPlatform::takeKeyMonitor()
{
    return std::move(m_keyMonitor);
}

std::unique_ptr<FrontApplication> LinuxPlatform::makeFrontApplication() const
{
    if (m_session.compositor == Compositor::wlroots) {
        if (auto compositor = CompositorFrontApplication::forSession(QProcessEnvironment::systemEnvironment()))
            return compositor;
    }
    return std::make_unique<X11FrontApplication>();
}

std::unique_ptr<AccessibilityTrust> LinuxPlatform::makeAccessibilityTrust() const
{
    if (m_session.kind == SessionInfo::Kind::wayland)
        return std::make_unique<KeySourceTrust>(m_keySource);
    return std::make_unique<X11AccessibilityTrust>();
}

void LinuxPlatform::onSecondLaunch(std::function<void()> show)
{
    m_commands->setHandler(CommandSocket::Command::show, std::move(show));
}

bool LinuxPlatform::sendToRunningProgram(CommandSocket::Command command, QString* error)
{
    return CommandSocket::send(commandSocketPath(), command, error);
}
