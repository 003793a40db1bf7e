#pragma once

#include <QString>

// What one dictation is asked for, as the user's preferences stood at the key press.
struct DictationOptions {
    // Such as "pt-BR"; Whisper gets its language part, the native engine the whole.
    QString localeIdentifier = QStringLiteral("pt-BR");
    // The Whisper model's file, in the models folder.
    QString whisperModelFileName;
    // Whether a recogniser that could use the network must stay on the device.
    bool preferOnDevice = true;
};
