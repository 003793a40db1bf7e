#include "Logging.h"

// Debug lines (which carry the user's words and file names) appear only when asked for, e.g.
// QT_LOGGING_RULES="voxaria.*.debug=true".

Q_LOGGING_CATEGORY(lcApp, "voxaria.app", QtInfoMsg)
Q_LOGGING_CATEGORY(lcSettings, "voxaria.settings", QtInfoMsg)
Q_LOGGING_CATEGORY(lcAudio, "voxaria.audio", QtInfoMsg)
Q_LOGGING_CATEGORY(lcWhisper, "voxaria.whisper", QtInfoMsg)
Q_LOGGING_CATEGORY(lcSpeech, "voxaria.speech", QtInfoMsg)
Q_LOGGING_CATEGORY(lcDictation, "voxaria.dictation", QtInfoMsg)
Q_LOGGING_CATEGORY(lcHotkey, "voxaria.hotkey", QtInfoMsg)
Q_LOGGING_CATEGORY(lcInsert, "voxaria.insert", QtInfoMsg)
Q_LOGGING_CATEGORY(lcHud, "voxaria.hud", QtInfoMsg)
Q_LOGGING_CATEGORY(lcHistory, "voxaria.history", QtInfoMsg)
Q_LOGGING_CATEGORY(lcMedia, "voxaria.media", QtInfoMsg)
