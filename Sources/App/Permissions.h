#pragma once

#include "Platform/Alerts.h"

#include <QString>
#include <QUrl>

#include <functional>
#include <optional>

// What dictation needs from the system, checked for real: nothing is granted or remembered here.
namespace Permissions {

struct Needs {
    bool microphone = false;        // an input device exists
    bool speechRecognition = false; // the native engine has a model for the language
    bool keyboardAccess = false;    // keys can be watched and posted (X11 with XInput2 and XTEST)
};

// Where each need is looked up. `system()` asks the machine; tests put their own answers in.
struct Checks {
    std::function<bool()> inputDeviceListed;                               // may block briefly
    std::function<bool(const QString& localeIdentifier)> nativeModelFound;
    std::function<bool()> keyboardAccess;                                  // main thread only

    static Checks system();
};

// The real checks, for the given language identifier (e.g. "pt-BR").
Needs check(const QString& localeIdentifier);
Needs check(const QString& localeIdentifier, const Checks& checks);

// A Wayland session: keys and pastes then reach only the X11 windows of XWayland, so keyboard
// access counts as pending even where an X display answers.
bool isWaylandSession();

// Each reports on the main thread whether the need is met; the looking-up runs off the main thread.
// Speech recognition is checked for the language chosen in the settings.
void requestMicrophone(std::function<void(bool)> completion);
void requestSpeechRecognition(std::function<void(bool)> completion);
void requestMicrophone(std::function<void(bool)> completion, const Checks& checks);
void requestSpeechRecognition(std::function<void(bool)> completion, const Checks& checks);

// The start-up round: both requests side by side, each missing need logged ("Permissão de
// microfone negada", "Permissão de reconhecimento de fala negada"), then the keyboard check (logged
// when pending). Shows nothing and does not wait.
void requestAtLaunch(const Checks& checks = Checks::system());

// "Permissões do Voxaria": the three needs with their marks; buttons "Abrir ajuda" and "OK".
Alerts::Alert permissionsAlert(const Needs& needs, const QString& localeIdentifier);
// The help page installed with the program: <folder of the executable>/../share/voxaria/help/ajuda.html.
QUrl helpPageURL();
QUrl helpPageURL(const QString& executableFolder);

// "Instale o Whisper para ditar" when neither engine can dictate in the language, else nothing.
std::optional<Alerts::Alert> noEngineAlert(bool whisperFound, bool nativeModelFound, const QString& localeIdentifier);

}
