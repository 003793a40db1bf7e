#include "App/Settings.h"
#include "BindingKeyMonitor.h"
#include "EvdevKeyMonitor.h"
#include "Platform/CombinedKeyMonitor.h"
#include "Platform/SessionInfo.h"
#include "Shared/Logging.h"
#include "XInputKeyMonitor.h"

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
