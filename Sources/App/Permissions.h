#pragma once

#include "Platform/Alerts.h"
#include "Platform/SessionPlatform.h"

#include <QString>
#include <QUrl>

#include <functional>
#include <optional>

// What dictation needs from the system, checked for real: nothing is granted or remembered here.
namespace Permissions {

struct Needs {
    bool microphone = false; // an input device exists
    bool speechRecognition = false; // the native engine has a model for the language
    bool keyboardAccess = false; // keys can be watched and posted (X11 with XInput2 and XTEST; on Wayland, the key seen)
};

// Where each need is looked up. `system()` asks the machine; tests put their own answers in.
struct Checks {
    std::function<bool()> inputDeviceListed; // may block briefly
    std::function<bool(const QString& localeIdentifier)> nativeModelFound;
    std::function<bool()> keyboardAccess; // main thread only

    // The machine's answers: the microphone as `microphoneListed` says, the keyboard asked of the
    // session's backends.
    static Checks system(const SessionPlatform& platform, std::function<bool()> microphoneListed);
};

// The real checks, for the given language identifier (e.g. "pt-BR"), without holding the main
// thread while the sound server is asked; `completion` runs on the main thread.
void check(const QString& localeIdentifier, std::function<void(Needs)> completion, const Checks& checks);

// Each reports on the main thread whether the need is met; the looking-up runs off the main thread.
// Speech recognition is checked for the language given (e.g. "pt-BR").
void requestMicrophone(std::function<void(bool)> completion, const Checks& checks);
void requestSpeechRecognition(const QString& localeIdentifier, std::function<void(bool)> completion, const Checks& checks);

// The start-up round: both requests side by side, each missing need logged ("Permissão de
// microfone negada", "Permissão de reconhecimento de fala negada"), then the keyboard check (logged
// when pending). Shows nothing and does not wait.
void requestAtLaunch(const QString& localeIdentifier, const Checks& checks);

// On a Wayland session, what stands in for the X11 keyboard access: the source that watches the
// dictation key, and whether the text is only copied instead of pasted.
struct WaylandUse {
    QString sessionName;
    QString keySource;
    // How dictated text arrives, e.g. "wlr data-control + teclado virtual".
    QString pasteRoute;
    // A paragraph of its own about that route, or empty.
    QString note = {};

    // Nothing on an X11 session.
    static std::optional<WaylandUse> of(const SessionPlatform& platform);
};

// "Permissões do Voxaria": the three needs with their marks; buttons "Abrir ajuda" and "OK". On
// Wayland the third line names the key source and how the text arrives.
Alerts::Alert permissionsAlert(
    const Needs& needs, const QString& localeIdentifier, const std::optional<WaylandUse>& wayland = std::nullopt);
// At start-up, on a Wayland session where nothing can see the dictation key: what the user can do.
std::optional<Alerts::Alert> noKeySourceAlert(const SessionPlatform& platform);
// The help page installed with the program: <prefix>/share/voxaria/help/ajuda.html, the program being in
// <prefix>/libexec/voxaria (installed) or <prefix>/bin (the build tree).
QUrl helpPageURL();
QUrl helpPageURL(const QString& executableFolder);

// "Instale o Whisper para ditar" when neither engine can dictate in the language, else nothing.
std::optional<Alerts::Alert> noEngineAlert(bool whisperFound, bool nativeModelFound, const QString& localeIdentifier);

}
