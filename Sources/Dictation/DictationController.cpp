#include "DictationController.h"

#include "Engines/SpeechTranscriber.h"
#include "Engines/WhisperTranscriber.h"
#include "History/HistoryStore.h"
#include "Shared/Logging.h"
#include "TextInserter.h"

#include <QDebug>
#include <QPointer>
#include <QTimer>

#include <utility>

namespace {

const QString accessibilityWarning = QStringLiteral("⚠️ Conceda permissão de Acessibilidade e tente de novo");
const QString listeningMessage = QStringLiteral("🎙️ Ouvindo… (solte a tecla para inserir)");
const QString transcribingMessage = QStringLiteral("✍️ Transcrevendo…");
const QString copiedMessage = QStringLiteral("Texto copiado — cole com Ctrl+V");
const QString consentMessage = QStringLiteral("Permita o controle remoto na janela do GNOME para o texto ser colado");
const QString noApplicationName = QStringLiteral("—");

// One line per measured dictation, pasted, empty or failed: where the engine's time went, and how
// long from the end of its work to the paste (or to the moment nothing was left to paste, or the
// failure was shown).
void logTiming(const std::optional<TranscriptionEngine::Timing>& timing, const QString& end)
{
    if (timing)
        qCInfo(lcDictation).noquote().nospace() << "dictation timing (ms): " << timing->spans << ", done → " << end << " "
                                                << timing->clock.elapsed() - timing->doneAt << "; " << timing->note;
}

}

void DictationController::ReleaseLater::operator()(TranscriptionEngine* engine) const
{
    engine->deleteLater();
}

DictationController::Collaborators DictationController::Collaborators::forSession(const SessionPlatform& platform)
{
    Collaborators collaborators;
    collaborators.accessibility = platform.makeAccessibilityTrust();
    collaborators.frontApplication = platform.makeFrontApplication();
    // The platform outlives the controller. Its mode is asked at each dictation: GNOME's is known
    // only once the shell has answered.
    collaborators.insertText = [&platform, target = TextInserter::Target::of(platform)](
                                   const QString& text, const FrontApplication::Answer& front, std::function<void()> onPasted) mutable {
        target.mode = TextInserter::modeOf(platform);
        target.terminalInFront = front.isTerminal();
        return TextInserter::insert(text, target, std::move(onPasted));
    };
    return collaborators;
}

DictationController::DictationController(Collaborators collaborators, HistoryStore& history, QObject* parent)
    : QObject(parent)
    , m_makeEngine(std::move(collaborators.makeEngine))
    , m_sounds(std::move(collaborators.sounds))
    , m_accessibility(std::move(collaborators.accessibility))
    , m_frontApplication(std::move(collaborators.frontApplication))
    , m_insertText(std::move(collaborators.insertText))
    , m_timing(collaborators.timing)
    , m_display(std::move(collaborators.display))
    , m_history(history)
{
    m_liveTextTimer.setSingleShot(true);
    m_liveTextTimer.setInterval(m_timing.liveTextInterval);
    connect(&m_liveTextTimer, &QTimer::timeout, this, &DictationController::showPendingLiveText);
}

DictationController::~DictationController()
{
    // A dictation still under way when the program ends leaves no recording or child behind.
    if (m_transcriber)
        m_transcriber->cancel();
}

std::unique_ptr<TranscriptionEngine> DictationController::makeEngine(
    TranscriptionEngineKind chosen, const DictationOptions& options, const PlatformServices& services)
{
    if (chosen == TranscriptionEngineKind::whisper && WhisperTranscriber::isAvailable(options.whisperModelFileName))
        return std::make_unique<WhisperTranscriber>(
            services.makeAudioInput(), services.makeConverter, services.waitsOnStandardInput, options);
    return std::make_unique<SpeechTranscriber>(services.makeAudioInput(), services.makeRecognizer, services.makeConverter, options);
}

std::chrono::steady_clock::duration DictationController::KeyMoment::until(const KeyMoment& later) const
{
    // Two events of the same key source are compared by their own times, which neither a slow
    // microphone start nor a busy main thread can stretch or shrink. Unsigned subtraction keeps the
    // difference right across the clock's wrap.
    if (eventTime && later.eventTime)
        return std::chrono::milliseconds(KeyEventTime(*later.eventTime - *eventTime));
    return later.calledAt - calledAt;
}

void DictationController::startRecording(std::optional<KeyEventTime> pressedAt)
{
    if (m_state != State::idle)
        return;
    // Taken before the engine starts: opening the microphone may take a while, and the key is
    // held all along.
    const KeyMoment pressed{pressedAt};
    if (!m_accessibility->isTrusted(true)) {
        qCInfo(lcDictation) << "key pressed without keyboard access; no dictation";
        m_display->show(accessibilityWarning, QString());
        hideLaterIfStillIdle(m_timing.accessibilityMessage);
        return;
    }
    askFrontApplication();
    if (!startEngine())
        return;
    setState(State::recording);
    m_keyPressedAt = pressed;
    play("Tink");
    dropLiveText();
    m_display->show(listeningMessage, QString());
}

// Asked once per dictation at the key press, before the HUD shows: the application the user
// dictates into. Its answer comes while they speak, names the history entry and tells the paste
// whether a terminal takes it.
void DictationController::askFrontApplication()
{
    auto asking = std::make_shared<FrontAsking>();
    m_front = asking;
    m_frontApplication->ask(this, [asking](const FrontApplication::Answer& answer) {
        asking->answer = answer;
        if (auto waiting = std::exchange(asking->waiting, nullptr))
            waiting(answer);
    });
}

bool DictationController::startEngine()
{
    m_transcriber = EnginePtr(m_makeEngine().release());
    QPointer<DictationController> weakSelf(this);
    try {
        m_transcriber->start(
            [weakSelf](const QString& textSoFar) {
                if (weakSelf)
                    weakSelf->showLiveText(textSoFar);
            },
            [weakSelf](const QString& text) {
                if (weakSelf)
                    weakSelf->handleFinal(text);
            },
            [weakSelf](const Error& error) {
                if (weakSelf)
                    weakSelf->handleError(error);
            });
    } catch (const Error& error) {
        handleError(error);
        return false;
    } catch (const std::exception& failure) {
        handleError(PlatformError(QString::fromLocal8Bit(failure.what())));
        return false;
    }
    return true;
}

// A live engine may report a new text every few milliseconds: the HUD shows the first at once and
// then at most one per interval, always the latest, so the panel is not redrawn faster than anyone
// reads and the main thread stays free for the key and the paste.
void DictationController::showLiveText(const QString& textSoFar)
{
    if (m_liveTextTimer.isActive()) {
        m_pendingLiveText = textSoFar;
        return;
    }
    m_display->update(textSoFar);
    m_liveTextTimer.start();
}

void DictationController::showPendingLiveText()
{
    if (m_pendingLiveText)
        showLiveText(*std::exchange(m_pendingLiveText, std::nullopt));
}

// A text still waiting belongs to the dictation that ended: it must never appear in the next one.
void DictationController::dropLiveText()
{
    m_liveTextTimer.stop();
    m_pendingLiveText.reset();
}

void DictationController::stopRecordingAndInsert(std::optional<KeyEventTime> releasedAt)
{
    if (m_state != State::recording)
        return;
    const auto held = m_keyPressedAt.until(KeyMoment{releasedAt});
    if (held < m_timing.shortPress) {
        qCInfo(lcDictation) << "short press; dictation dropped after" << std::chrono::duration_cast<std::chrono::milliseconds>(held).count()
                            << "ms";
        if (m_transcriber)
            m_transcriber->cancel();
        m_transcriber.reset();
        setState(State::idle);
        dropLiveText();
        m_display->hide();
        return;
    }
    setState(State::finishing);
    m_display->show(transcribingMessage, QString());
    if (m_transcriber)
        m_transcriber->finish();
}

void DictationController::handleFinal(const QString& text)
{
    if (m_state == State::idle)
        return;
    setState(State::idle);
    const std::optional<TranscriptionEngine::Timing> timing = m_transcriber ? m_transcriber->timing() : std::nullopt;
    m_transcriber.reset();
    dropLiveText();
    m_display->hide();
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty()) {
        qCInfo(lcDictation) << "nothing was heard";
        logTiming(timing, QStringLiteral("nothing to paste"));
        play("Basso");
        return;
    }
    play("Pop");
    insert(trimmed, timing);
}

// A text that comes before the application in front was named waits for its answer.
void DictationController::insert(const QString& text, std::optional<TranscriptionEngine::Timing> timing)
{
    auto paste = [this, text, timing = std::move(timing)](const FrontApplication::Answer& front) { insertInto(text, front, timing); };
    if (!m_front || m_front->answer)
        paste(m_front ? *m_front->answer : FrontApplication::Answer{});
    else
        m_front->waiting = std::move(paste);
}

void DictationController::insertInto(
    const QString& text, const FrontApplication::Answer& front, const std::optional<TranscriptionEngine::Timing>& timing)
{
    const QString appName = front.name.value_or(QString());
    const QString shownName = appName.isEmpty() ? noApplicationName : appName;
    qCInfo(lcDictation) << "inserting" << text.size() << "characters into" << shownName;
    const TextInserter::Mode mode = m_insertText(text, front, [timing] { logTiming(timing, QStringLiteral("paste done")); });
    m_history.add(text, shownName);
    if (mode != TextInserter::Mode::paste) {
        m_display->show(mode == TextInserter::Mode::copyOnly ? copiedMessage : consentMessage, QString());
        hideLaterIfStillIdle(m_timing.copiedMessage);
    }
}

void DictationController::handleError(const Error& error)
{
    qCWarning(lcDictation) << "dictation failed:" << error.description();
    setState(State::idle);
    if (m_transcriber)
        logTiming(m_transcriber->timing(), QStringLiteral("failure shown"));
    m_transcriber.reset();
    dropLiveText();
    m_display->show(QStringLiteral("⚠️ ") + error.description(), QString());
    play("Basso");
    hideLaterIfStillIdle(m_timing.errorMessage);
}

void DictationController::setState(State state)
{
    m_state = state;
    qCDebug(lcDictation) << "state" << state;
    if (onStateChange)
        onStateChange(state);
}

void DictationController::play(const char* sound)
{
    m_sounds.play(QLatin1String(sound));
}

void DictationController::hideLaterIfStillIdle(std::chrono::milliseconds delay)
{
    // The state is tested when the timer fires: a dictation started meanwhile keeps its HUD.
    // Precise: a coarse timer of this length may fire a fifth of a second early.
    QTimer::singleShot(delay, Qt::PreciseTimer, this, [this] {
        if (m_state == State::idle)
            m_display->hide();
    });
}

QDebug operator<<(QDebug debug, DictationController::State state)
{
    switch (state) {
    case DictationController::State::idle: return debug << "idle";
    case DictationController::State::recording: return debug << "recording";
    case DictationController::State::finishing: return debug << "finishing";
    }
    return debug;
}
