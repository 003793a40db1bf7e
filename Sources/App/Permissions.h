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

// The real checks, for the given language identifier (e.g. "pt-BR").
Needs check(const QString& localeIdentifier);

// Each reports on the main thread whether the need is met.
void requestMicrophone(std::function<void(bool)> completion);
void requestSpeechRecognition(std::function<void(bool)> completion);

// "Permissões do Voxaria": the three needs with their marks; buttons "Abrir ajuda" and "OK".
Alerts::Alert permissionsAlert(const Needs& needs, const QString& localeIdentifier);
// The help page installed with the program.
QUrl helpPageURL();

// "Instale o Whisper para ditar" when neither engine can dictate in the language, else nothing.
std::optional<Alerts::Alert> noEngineAlert(bool whisperFound, bool nativeModelFound, const QString& localeIdentifier);

}
