#include "LinuxServices.h"

#include "Platform/Linux/Audio/InputDevices.h"
#include "Platform/Linux/Audio/PulseAudioInput.h"
#include "Platform/Linux/Audio/SoxrAudioConverter.h"
#include "Platform/Linux/Desktop/DesktopUrlOpener.h"
#include "Platform/Linux/Desktop/MessageBoxAlerts.h"
#include "Platform/Linux/Desktop/ProcessActivity.h"
#include "Platform/Linux/Desktop/QtFileDialogs.h"
#include "Platform/Linux/Desktop/SoundEffectSounds.h"
#include "Platform/Linux/Desktop/StatusNotifierSystemTray.h"
#include "Platform/Linux/Desktop/XdgAutostartLoginItem.h"
#include "Platform/Linux/LiveSpeech/LiveSpeechRecognizer.h"
#include "Platform/Linux/Media/FFmpegMediaReader.h"
#include "Platform/Linux/X11/X11WindowFocus.h"

PlatformServices LinuxServices::make()
{
    PlatformServices services;
    services.alerts = std::make_shared<MessageBoxAlerts>();
    services.fileDialogs = std::make_shared<QtFileDialogs>();
    services.sounds = std::make_shared<SoundEffectSounds>();
    services.loginItem = std::make_shared<XdgAutostartLoginItem>();
    services.urlOpener = std::make_shared<DesktopUrlOpener>();
    services.systemTray = std::make_shared<StatusNotifierSystemTray>();
    services.windowFocus = std::make_shared<X11WindowFocus>();
    services.makeAudioInput = [] { return std::make_unique<PulseAudioInput>(); };
    services.makeConverter = &SoxrAudioConverter::make;
    services.makeMediaReader = [] { return std::make_unique<FFmpegMediaReader>(); };
    services.makeRecognizer = &LiveSpeechRecognizer::forLocale;
    services.microphoneListed = &InputDevices::anyListed;
    services.waitsOnStandardInput = &ProcessActivity::waitsOnStandardInput;
    return services;
}
