#pragma once

#include "FakeAlerts.h"
#include "FakeAudioInput.h"
#include "FakeFileDialogs.h"
#include "FakeLoginItem.h"
#include "FakeMediaReader.h"
#include "FakeSounds.h"
#include "FakeSpeechRecognizer.h"
#include "FakeSystemTray.h"
#include "FakeUrlOpener.h"
#include "FakeWindowFocus.h"
#include "Platform/PlatformServices.h"

// Every desktop service as a recording fake, kept here for the test to script and read. The
// factories make fresh fakes; the recogniser is the one `recognizer`, no format converts, a
// microphone is always listed and no process says what it waits for.
struct FakePlatformServices {
    std::shared_ptr<FakeAlerts> alerts = std::make_shared<FakeAlerts>();
    std::shared_ptr<FakeFileDialogs> fileDialogs = std::make_shared<FakeFileDialogs>();
    std::shared_ptr<FakeSounds> sounds = std::make_shared<FakeSounds>();
    std::shared_ptr<FakeLoginItem> loginItem = std::make_shared<FakeLoginItem>();
    std::shared_ptr<FakeUrlOpener> urlOpener = std::make_shared<FakeUrlOpener>();
    std::shared_ptr<FakeSystemTray> systemTray = std::make_shared<FakeSystemTray>();
    std::shared_ptr<FakeWindowFocus> windowFocus = std::make_shared<FakeWindowFocus>();
    std::shared_ptr<FakeSpeechRecognizer> recognizer = std::make_shared<FakeSpeechRecognizer>();

    PlatformServices services() const
    {
        return {alerts, fileDialogs, sounds, loginItem, urlOpener, systemTray, windowFocus,
            [] { return std::make_unique<FakeAudioInput>(); }, [](const AudioFormat&, int) { return std::unique_ptr<AudioConverter>(); },
            [] { return std::make_unique<FakeMediaReader>(); }, [recognizer = recognizer](const QString&) { return recognizer; },
            [] { return true; }, [](qint64) { return std::optional<bool>(); }};
    }
};
