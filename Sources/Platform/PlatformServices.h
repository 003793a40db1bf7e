#pragma once

#include "Platform/Alerts.h"
#include "Platform/AudioConverter.h"
#include "Platform/AudioInput.h"
#include "Platform/FileDialogs.h"
#include "Platform/LoginItem.h"
#include "Platform/MediaReader.h"
#include "Platform/Sounds.h"
#include "Platform/SpeechRecognizer.h"
#include "Platform/SystemTray.h"
#include "Platform/UrlOpener.h"
#include "Platform/WindowFocus.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>

// The desktop services a component reaches, built once where the program starts and handed down:
// one shared instance of each service the whole program uses, and a factory for each one made per
// use. No component builds a backend of its own.
struct PlatformServices {
    using AudioInputFactory = std::function<std::unique_ptr<AudioInput>()>;
    using ConverterFactory = std::function<std::unique_ptr<AudioConverter>(const AudioFormat& from, int targetSampleRate)>;
    using MediaReaderFactory = std::function<std::unique_ptr<MediaReader>()>;
    // Nothing for a language no recogniser of this platform knows.
    using RecognizerFactory = std::function<std::shared_ptr<SpeechRecognizer>(const QString& localeIdentifier)>;
    // Whether a running child process waits in a read of its standard input; nothing when the
    // system does not say.
    using InputWaitProbe = std::function<std::optional<bool>(qint64 pid)>;

    std::shared_ptr<Alerts> alerts;
    std::shared_ptr<FileDialogs> fileDialogs;
    std::shared_ptr<Sounds> sounds;
    std::shared_ptr<LoginItem> loginItem;
    std::shared_ptr<UrlOpener> urlOpener;
    std::shared_ptr<SystemTray> systemTray;
    std::shared_ptr<WindowFocus> windowFocus;

    // A microphone per recording.
    AudioInputFactory makeAudioInput;
    // A converter per microphone format; nothing when `from` cannot be converted.
    ConverterFactory makeConverter;
    // A reader per media file.
    MediaReaderFactory makeMediaReader;
    // A recogniser per dictation language.
    RecognizerFactory makeRecognizer;
    // Whether the sound system lists a microphone (it may wait for the sound server: ask off the
    // main thread).
    std::function<bool()> microphoneListed;
    InputWaitProbe waitsOnStandardInput;
};
