// Which implementation stands behind each seam that depends on the session: X11 everywhere it can,
// and on Wayland whatever the compositor offers, first available wins.
#include "App/Settings.h"
#include "BindingKeyMonitor.h"
#include "ClipboardPasteboard.h"
#include "CompositorFrontApplication.h"
#include "DataControlPasteboard.h"
#include "EvdevKeyMonitor.h"
#include "Platform/CombinedKeyMonitor.h"
#include "Platform/SessionInfo.h"
#include "Shared/Logging.h"
#include "VirtualKeyboardKeyPoster.h"
#include "WaylandClient.h"
#include "X11FrontApplication.h"
#include "X11AccessibilityTrust.h"
#include "XInputKeyMonitor.h"
#include "XTestKeyPoster.h"

#include <QDir>
#include <QStandardPaths>

namespace {

KeyMonitor::SourceChoice latestChoice;

QString bindingSocketPath()
{
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty())
        folder = QDir::tempPath();
    return folder + QLatin1Char('/') + Settings::applicationId() + QStringLiteral(".keys");
}

std::unique_ptr<KeyMonitor> bindings()
{
    return std::make_unique<BindingKeyMonitor>(bindingSocketPath(), [] {
        const HotKey key = Settings::shared().hotKey();
        return ModifierKey{key.keyCode(), key.modifierFlag()};
    });
}

// The keyboards themselves, where this user may read them; otherwise the monitor explains, when it
// is asked to watch, how to be allowed.
std::unique_ptr<KeyMonitor> keyboards()
{
    return std::make_unique<EvdevKeyMonitor>();
}

// On Wayland nothing is granted: a dictation can work once the chosen key source sees the key (the
// text arrives by paste or by copy, whichever the compositor allows).
class KeySourceTrust final : public AccessibilityTrust {
public:
    bool isTrusted(bool prompt) override
    {
        const KeyMonitor::SourceChoice choice = KeyMonitor::defaultChoice();
        if (!choice.works && prompt)
            qCWarning(lcDictation).noquote() << "the dictation key cannot be seen through" << choice.description;
        return choice.works;
    }
};

// The compositor's own clipboard and keyboard protocols, when it offers both (sway, Hyprland).
std::shared_ptr<WaylandClient> pastingCompositor()
{
    const std::shared_ptr<WaylandClient> client = WaylandClient::shared();
    return client && client->dataControl() && client->virtualKeyboards() ? client : nullptr;
}

}

std::unique_ptr<KeyMonitor> KeyMonitor::makeDefault()
{
    const SessionInfo session = SessionInfo::current();
    QString chosen;
    bool works = true;
    std::unique_ptr<KeyMonitor> monitor;
    using Compositor = SessionInfo::Compositor;
    if (session.kind == SessionInfo::Kind::x11
        || (session.compositor == Compositor::kde && session.hasXDisplay)) {
        // KWin hands modifier changes to XWayland clients even while a Wayland window has the focus.
        chosen = QStringLiteral("XInput2");
        monitor = std::make_unique<XInputKeyMonitor>();
    } else if (session.compositor == Compositor::wlroots) {
        std::vector<std::unique_ptr<KeyMonitor>> sources;
        sources.push_back(bindings());
        chosen = QStringLiteral("compositor bindings");
        if (EvdevKeyMonitor::canRead()) {
            sources.push_back(keyboards());
            chosen += QStringLiteral(" + /dev/input");
        }
        monitor = std::make_unique<CombinedKeyMonitor>(std::move(sources));
    } else {
        chosen = QStringLiteral("/dev/input");
        works = EvdevKeyMonitor::canRead();
        monitor = keyboards();
    }
    qCInfo(lcHotkey).noquote() << "session:" << session.description() << "- dictation key through" << chosen;
    latestChoice = {chosen, works};
    return monitor;
}

KeyMonitor::SourceChoice KeyMonitor::defaultChoice()
{
    return latestChoice;
}

bool KeyMonitor::sendToRunningProgram(bool pressed, QString* error)
{
    return BindingKeyMonitor::send(bindingSocketPath(),
                                   pressed ? BindingKeyMonitor::Command::press : BindingKeyMonitor::Command::release, error);
}

std::shared_ptr<Pasteboard> Pasteboard::general()
{
    static const std::shared_ptr<Pasteboard> general = []() -> std::shared_ptr<Pasteboard> {
        // KWin offers the data-control clipboard without the virtual keyboard: the text is then
        // copied there, where native windows see it.
        if (const std::shared_ptr<WaylandClient> client = WaylandClient::shared(); client && client->dataControl()) {
            auto dataControl = std::make_shared<DataControlPasteboard>(client);
            if (dataControl->isAvailable())
                return dataControl;
        }
        return std::make_shared<ClipboardPasteboard>();
    }();
    return general;
}

std::shared_ptr<KeyPoster> KeyPoster::makeDefault()
{
    // One virtual keyboard for the program's life: each new one is announced to every client. Only
    // GNOME takes a paste through XWayland; on other Wayland sessions an XTEST paste would reach
    // only X11 windows, so without the compositor's protocols nothing is synthesised at all.
    static const std::shared_ptr<KeyPoster> virtualKeyboard = []() -> std::shared_ptr<KeyPoster> {
        const SessionInfo session = SessionInfo::current();
        if (session.kind != SessionInfo::Kind::wayland || session.compositor == SessionInfo::Compositor::gnome)
            return nullptr;
        return std::make_shared<VirtualKeyboardKeyPoster>(pastingCompositor(), FrontApplication::makeDefault());
    }();
    if (virtualKeyboard)
        return virtualKeyboard;
    return std::make_shared<XTestKeyPoster>();
}

std::unique_ptr<FrontApplication> FrontApplication::makeDefault()
{
    if (SessionInfo::current().compositor == SessionInfo::Compositor::wlroots) {
        if (auto compositor = CompositorFrontApplication::forSession(QProcessEnvironment::systemEnvironment()))
            return compositor;
    }
    return std::make_unique<X11FrontApplication>();
}

std::unique_ptr<AccessibilityTrust> AccessibilityTrust::makeDefault()
{
    if (SessionInfo::current().kind == SessionInfo::Kind::wayland)
        return std::make_unique<KeySourceTrust>();
    return std::make_unique<X11AccessibilityTrust>();
}
