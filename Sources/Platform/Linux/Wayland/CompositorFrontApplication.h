#pragma once

#include "Platform/FrontApplication.h"
#include "Platform/Linux/Desktop/DesktopEntryNames.h"

#include <QJsonObject>
#include <QProcessEnvironment>

#include <memory>

// The front application on wlroots compositors, asked of the compositor itself, since Wayland lets
// no client look at another's windows: sway answers on its IPC socket (the focused node of its
// tree), Hyprland on its request socket (the active window). A native window is known by its
// application id, an XWayland one by its X11 class.
class CompositorFrontApplication final : public FrontApplication {
public:
    enum class Protocol { sway, hyprland };

    CompositorFrontApplication(Protocol protocol, QString socketPath);
    // The compositor of this session's environment, or nothing when it has no socket to ask.
    static std::unique_ptr<CompositorFrontApplication> forSession(const QProcessEnvironment& environment);

    // Asked on a pooled thread, one compositor request per answer.
    void ask(QObject* context, AnswerHandler done) override;
    std::optional<QString> localizedName() override;
    std::optional<WindowClass> windowClass() override;

private:
    struct Window {
        WindowClass windowClass;
        qint64 pid = 0;
    };

    std::optional<Window> focusedWindow();
    std::optional<QString> nameOf(const Window& window);
    Answer answerNow();
    std::optional<QJsonObject> askSway();
    std::optional<QJsonObject> askHyprland();

    Protocol m_protocol;
    QString m_socketPath;
    DesktopEntryNames m_desktopNames;
};
