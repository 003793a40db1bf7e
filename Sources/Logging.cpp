#include "Logging.h"

Q_LOGGING_CATEGORY(lcApp, "voxaria.app")
Q_LOGGING_CATEGORY(lcSettings, "voxaria.settings")
Q_LOGGING_CATEGORY(lcAudio, "voxaria.audio")
Q_LOGGING_CATEGORY(lcWhisper, "voxaria.whisper")
Q_LOGGING_CATEGORY(lcSpeech, "voxaria.speech")
Q_LOGGING_CATEGORY(lcDictation, "voxaria.dictation")
Q_LOGGING_CATEGORY(lcHotkey, "voxaria.hotkey")
Q_LOGGING_CATEGORY(lcInsert, "voxaria.insert")
Q_LOGGING_CATEGORY(lcHud, "voxaria.hud")
Q_LOGGING_CATEGORY(lcHistory, "voxaria.history")
