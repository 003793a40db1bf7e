#pragma once

#include "Engines/DictationOptions.h"
#include "Engines/TranscriptionEngine.h"
#include "Platform/AccessibilityTrust.h"
#include "Platform/FeedbackSounds.h"
#include "Platform/FrontApplication.h"
#include "Platform/KeyMonitor.h"
#include "Platform/PlatformServices.h"
#include "Shared/Error.h"
#include "Shared/Preferences/TranscriptionEngineKind.h"
#include "StatusDisplay.h"
#include "TextInserter.h"

#include <QObject>
#include <QString>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

// Runs one push-to-talk dictation at a time: picks and drives the engine, tells the user on the
// HUD and with sounds what is happening, and pastes and records the final text. Main thread only.
class HistoryStore;

class DictationController : public QObject {
    Q_OBJECT
public:
    enum class State { idle, recording, finishing };

    using EngineFactory = std::function<std::unique_ptr<TranscriptionEngine>()>;
    // Answers how the text went: pasted, or only copied for the user to paste; `onPasted` follows
    // once it was. `front` is what was in front when the text was ready.
    using TextInsertion
        = std::function<TextInserter::Mode(const QString& text, const FrontApplication::Answer& front, std::function<void()> onPasted)>;

    struct Timing {
        // A press shorter than this was a slip, not a dictation (key down to key up).
        std::chrono::milliseconds shortPress{300};
        // How long the accessibility warning stays, if no dictation started meanwhile.
        std::chrono::milliseconds accessibilityMessage{3000};
        // How long an error stays, if no dictation started meanwhile.
        std::chrono::milliseconds errorMessage{4000};
        // How long the note that the text was only copied stays, if no dictation started meanwhile.
        std::chrono::milliseconds copiedMessage{3000};
        // The live text on the HUD changes at most this often; the latest text so far wins.
        std::chrono::milliseconds liveTextInterval{100};
    };

    // What the controller works with: a fresh engine per dictation, the sounds as the user wants
    // them; the trust test, front application and insertion come from the session.
    struct Collaborators {
        EngineFactory makeEngine;
        FeedbackSounds sounds;
        std::unique_ptr<AccessibilityTrust> accessibility;
        std::unique_ptr<FrontApplication> frontApplication;
        TextInsertion insertText;
        Timing timing;
        // Where the status shows: the HUD, which the program's widgets provide.
        std::unique_ptr<StatusDisplay> display;

        // The session's trust test, front application and paste, to which the owner adds the engine
        // factory and the sounds; `platform` must outlive the controller.
        static Collaborators forSession(const SessionPlatform& platform);
    };

    // Every inserted dictation is added to `history`, which outlives the controller.
    DictationController(Collaborators collaborators, HistoryStore& history, QObject* parent = nullptr);
    ~DictationController() override;

    // Called after every change of state, synchronously, with the new state.
    std::function<void(State)> onStateChange;

    State state() const { return m_state; }

    // The key went down / up, at the key event's own time when the caller has it; without one, the
    // moment of the call counts.
    void startRecording(std::optional<KeyEventTime> pressedAt = std::nullopt);
    void stopRecordingAndInsert(std::optional<KeyEventTime> releasedAt = std::nullopt);

    // A new engine for one dictation: Whisper when chosen and available, otherwise the native
    // recogniser, silently.
    static std::unique_ptr<TranscriptionEngine> makeEngine(
        TranscriptionEngineKind chosen, const DictationOptions& options, const PlatformServices& services);

private:
    // Engines are released while one of their own callbacks may still be on the stack.
    struct ReleaseLater {
        void operator()(TranscriptionEngine* engine) const;
    };
    using EnginePtr = std::unique_ptr<TranscriptionEngine, ReleaseLater>;

    // When the key moved: its event's time if the caller has one, and the monotonic clock at the
    // call for callers without.
    struct KeyMoment {
        std::optional<KeyEventTime> eventTime;
        std::chrono::steady_clock::time_point calledAt = std::chrono::steady_clock::now();

        std::chrono::steady_clock::duration until(const KeyMoment& later) const;
    };

    void askFrontApplication();
    bool startEngine();
    void showLiveText(const QString& textSoFar);
    void showPendingLiveText();
    void dropLiveText();
    void handleFinal(const QString& text);
    void handleError(const Error& error);
    void insert(const QString& text, std::optional<TranscriptionEngine::Timing> timing);
    void insertInto(const QString& text, const FrontApplication::Answer& front, const std::optional<TranscriptionEngine::Timing>& timing);
    void setState(State state);
    void play(const char* sound);
    void hideLaterIfStillIdle(std::chrono::milliseconds delay);

    State m_state = State::idle;
    EnginePtr m_transcriber;
    // Running from the moment a live text is shown until the next may be; one that comes meanwhile
    // waits in m_pendingLiveText, replaced by any later one.
    QTimer m_liveTextTimer;
    std::optional<QString> m_pendingLiveText;
    // Set whenever a recording starts.
    KeyMoment m_keyPressedAt;
    // The application in front at a dictation's key press, and its text when that came first.
    struct FrontAsking {
        std::optional<FrontApplication::Answer> answer;
        std::function<void(const FrontApplication::Answer&)> waiting;
    };
    std::shared_ptr<FrontAsking> m_front;

    EngineFactory m_makeEngine;
    FeedbackSounds m_sounds;
    std::unique_ptr<AccessibilityTrust> m_accessibility;
    std::unique_ptr<FrontApplication> m_frontApplication;
    TextInsertion m_insertText;
    Timing m_timing;
    std::unique_ptr<StatusDisplay> m_display;
    HistoryStore& m_history;
};

QDebug operator<<(QDebug debug, DictationController::State state);
