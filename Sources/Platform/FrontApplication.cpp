#include "Platform/FrontApplication.h"

#include <QCoreApplication>
#include <QSet>

// The context is looked at on the main thread only; the application object outlives every asking.
void FrontApplication::answerLater(QPointer<QObject> context, AnswerHandler done, Answer answer)
{
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [context = std::move(context), done = std::move(done), answer = std::move(answer)] {
            if (context)
                done(answer);
        },
        Qt::QueuedConnection);
}

// Window classes (X11) and application ids (Wayland) of the terminal emulators people use.
bool FrontApplication::isTerminal(const FrontApplication::WindowClass& windowClass)
{
    static const QSet<QString> terminals = {
        QStringLiteral("xterm"),
        QStringLiteral("uxterm"),
        QStringLiteral("gnome-terminal"),
        QStringLiteral("gnome-terminal-server"),
        QStringLiteral("org.gnome.terminal"),
        QStringLiteral("org.gnome.console"),
        QStringLiteral("kgx"),
        QStringLiteral("ptyxis"),
        QStringLiteral("konsole"),
        QStringLiteral("org.kde.konsole"),
        QStringLiteral("yakuake"),
        QStringLiteral("alacritty"),
        QStringLiteral("kitty"),
        QStringLiteral("foot"),
        QStringLiteral("footclient"),
        QStringLiteral("xfce4-terminal"),
        QStringLiteral("mate-terminal"),
        QStringLiteral("lxterminal"),
        QStringLiteral("qterminal"),
        QStringLiteral("terminator"),
        QStringLiteral("tilix"),
        QStringLiteral("com.gexperts.tilix"),
        QStringLiteral("terminology"),
        QStringLiteral("urxvt"),
        QStringLiteral("rxvt"),
        QStringLiteral("st"),
        QStringLiteral("st-256color"),
        QStringLiteral("wezterm"),
        QStringLiteral("org.wezfurlong.wezterm"),
        QStringLiteral("sakura"),
        QStringLiteral("guake"),
        QStringLiteral("tilda"),
        QStringLiteral("cool-retro-term"),
        QStringLiteral("contour"),
        QStringLiteral("ghostty"),
        QStringLiteral("com.mitchellh.ghostty"),
    };
    return terminals.contains(windowClass.instance.toLower()) || terminals.contains(windowClass.className.toLower());
}
