#include "Dictation/DictationController.h"
#include "Dictation/HUDPanel.h"
#include "Engines/SpeechTranscriber.h"
#include "Engines/WhisperError.h"
#include "History/HistoryStore.h"
#include "Platform/Fakes/FakeAccessibilityTrust.h"
#include "Platform/Fakes/FakeFrontApplication.h"
#include "Platform/Fakes/FakeKeyPoster.h"
#include "Platform/Fakes/FakePasteboard.h"
#include "Platform/Fakes/FakePlatformServices.h"
#include "Shared/AppPaths.h"

#include "TestSupport.h"

#include <QCoreApplication>
#include <QLabel>
#include <QSet>

#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <thread>

using namespace std::chrono_literals;
using State = DictationController::State;

namespace {

// What the engines were asked to do; the test calls the latest one's callbacks in its place (also late).
struct EngineScript {
    int made = 0, finished = 0, cancelled = 0;
    std::chrono::milliseconds startTakes{0};
    std::optional<WhisperError> startFailure;
    TranscriptionEngine::PartialCallback partial;
    TranscriptionEngine::FinalCallback final;
    TranscriptionEngine::ErrorCallback error;
};

class ScriptedEngine final : public TranscriptionEngine {
public:
    explicit ScriptedEngine(std::shared_ptr<EngineScript> script)
        : m_script(std::move(script))
    {
        ++m_script->made;
    }

    void start(PartialCallback onPartial, FinalCallback onFinal, ErrorCallback onError) override
    {
        std::this_thread::sleep_for(m_script->startTakes);
        if (m_script->startFailure)
            throw *m_script->startFailure;
        m_script->partial = std::move(onPartial);
        // The application in front answers through the event loop, which runs right after.
        m_script->final = [onFinal = std::move(onFinal)](const QString& text) {
            onFinal(text);
            QCoreApplication::sendPostedEvents();
        };
        m_script->error = std::move(onError);
    }
    void finish() override { ++m_script->finished; }
    void cancel() override { ++m_script->cancelled; }
    bool providesPartials() const override { return true; }

private:
    std::shared_ptr<EngineScript> m_script;
};

const QString listening = QStringLiteral("🎙️ Ouvindo… (solte a tecla para inserir)");
const QString transcribing = QStringLiteral("✍️ Transcrevendo…");
const QString accessibilityWarning = QStringLiteral("⚠️ Conceda permissão de Acessibilidade e tente de novo");
const WhisperError whisperFailed = WhisperError::transcriptionFailed(QStringLiteral("código 1"));

class DictationTest : public ::testing::Test {
public:
    static constexpr auto errorDelay = 250ms;
    QTemporaryDir scratch;
    HistoryStore history{scratch.filePath("history.json")};

    void SetUp() override { restart(); }

    // A fresh controller over fresh fakes, with nothing recorded yet; the messages go quickly.
    void restart(bool playSounds = true, DictationController::Timing timing = {300ms, 150ms, errorDelay})
    {
        history.clear();
        controller.reset();
        script = std::make_shared<EngineScript>();
        inserted.clear();
        states.clear();
        pasteboard = std::make_shared<FakePasteboard>();
        keyPoster = std::make_shared<FakeKeyPoster>();
        sounds = std::make_shared<FakeSounds>();
        auto fakeTrust = std::make_unique<FakeAccessibilityTrust>();
        auto fakeFront = std::make_unique<FakeFrontApplication>();
        trust = fakeTrust.get();
        front = fakeFront.get();
        auto panel = std::make_unique<HUDPanel>();
        hud = panel.get();
        controller = std::make_unique<DictationController>(
            DictationController::Collaborators{[script = script] { return std::make_unique<ScriptedEngine>(script); },
                FeedbackSounds(sounds, [playSounds] { return playSounds; }), std::move(fakeTrust), std::move(fakeFront),
                [this](const QString& text, const FrontApplication::Answer&, std::function<void()> onPasted) {
                    inserted << text;
                    frontQueriesAtInsertion = front->queryCount;
                    return TextInserter::insert(text, {pasteboard, keyPoster, {}, insertionMode}, std::move(onPasted));
                },
                timing, std::move(panel)},
            history);
        controller->onStateChange = [this](State state) { states << state; };
    }

    bool hudVisible() { return hud->panel()->isVisible(); }
    // The live text under the status, as the user reads it ("" when its line is hidden).
    QString hudText()
    {
        const QLabel* label = hud->panel()->findChild<QLabel*>("textLabel");
        return label->isVisibleTo(hud->panel()) ? label->text().remove(QChar(0x200B)) : QString();
    }
    QString hudStatus() { return hud->panel()->accessibleName(); }

    void dictate() // the key held for 0.4 s by its events' times
    {
        controller->startRecording(1000);
        controller->stopRecordingAndInsert(1400);
    }

    std::shared_ptr<EngineScript> script;
    std::shared_ptr<FakeSounds> sounds;
    FakeAccessibilityTrust* trust = nullptr;
    FakeFrontApplication* front = nullptr;
    QStringList inserted;
    std::shared_ptr<FakePasteboard> pasteboard;
    std::shared_ptr<FakeKeyPoster> keyPoster;
    TextInserter::Mode insertionMode = TextInserter::Mode::paste;
    int frontQueriesAtInsertion = -1;
    QList<State> states;
    std::unique_ptr<DictationController> controller;
    HUDPanel* hud = nullptr;
};

// A key event at its own time (none: the moment of the call), the engine's answer, or the world's state.
using Step = std::function<void(DictationTest&)>;
Step down(std::optional<KeyEventTime> time)
{
    return [=](DictationTest& test) { test.controller->startRecording(time); };
}
Step up(std::optional<KeyEventTime> time)
{
    return [=](DictationTest& test) { test.controller->stopRecordingAndInsert(time); };
}
Step result(const char* text)
{
    return [=](DictationTest& test) { test.script->final(QString::fromUtf8(text)); };
}
const Step failure = [](DictationTest& test) { test.script->error(whisperFailed); };
const Step distrust = [](DictationTest& test) { test.trust->trusted = false; };
const Step failStart = [](DictationTest& test) { test.script->startFailure = WhisperError::modelMissing(); };

struct Scenario {
    const char* name;
    std::chrono::milliseconds startTakes;
    std::vector<Step> steps;
    QList<State> states;
    QStringList sounds;
    QString hud; // empty when hidden
    QStringList inserted;
    int finished, cancelled;
};

const QList<State> dropped{State::recording, State::idle};
const QList<State> stillFinishing{State::recording, State::finishing};
const QList<State> completed{State::recording, State::finishing, State::idle};

const Scenario scenarios[] = {
    {"held 0.4 s", 0ms, {down(0), up(400), result("  go forward\n ")}, completed, {"Tink", "Pop"}, "", {"go forward"}, 1, 0},
    {"under 0.3 s, with a late result", 0ms, {down(1000), up(1299), result("late")}, dropped, {"Tink"}, "", {}, 0, 1},
    {"0.3 s", 0ms, {down(1000), up(1300)}, stillFinishing, {"Tink"}, transcribing, {}, 1, 0},
    {"0.4 s, slow microphone", 500ms, {down(1000), up(1400)}, stillFinishing, {"Tink"}, transcribing, {}, 1, 0},
    {"0.2 s, slow microphone", 500ms, {down(1000), up(1200)}, dropped, {"Tink"}, "", {}, 0, 1},
    {"no event times, slow microphone", 500ms, {down({}), up({})}, stillFinishing, {"Tink"}, transcribing, {}, 1, 0},
    {"no event times, quick release", 0ms, {down({}), up({})}, dropped, {"Tink"}, "", {}, 0, 1},
    {"across the clock's wrap", 0ms, {down(0xFFFFFF00u), up(0x100)}, stillFinishing, {"Tink"}, transcribing, {}, 1, 0},
    {"a press while finishing", 0ms, {down(0), up(400), down(500), up(600), result("um")}, completed, {"Tink", "Pop"}, "", {"um"}, 1, 0},
    {"ended by the engine while held", 0ms, {down(0), result("já"), up(400)}, dropped, {"Tink", "Pop"}, "", {"já"}, 0, 0},
    {"an empty result", 0ms, {down(0), up(400), result(" \n\t ")}, completed, {"Tink", "Basso"}, "", {}, 1, 0},
    {"an error while finishing", 0ms, {down(0), up(400), failure}, completed, {"Tink", "Basso"},
        QStringLiteral("⚠️ ") + whisperFailed.description(), {}, 1, 0},
    {"a release while idle", 0ms, {up(0)}, {}, {}, "", {}, 0, 0},
    {"no keyboard access", 0ms, {distrust, down(0), up(400)}, {}, {}, accessibilityWarning, {}, 0, 0},
    {"an engine that cannot start", 0ms, {failStart, down(0), up(400)}, {State::idle}, {"Basso"},
        QStringLiteral("⚠️ ") + WhisperError::modelMissing().description(), {}, 0, 0},
};

TEST_F(DictationTest, KeysAndResultsFollowTheRulesWithSoundsOnOrOff)
{
    for (const Scenario& scenario : scenarios) {
        for (const bool playSounds : {true, false}) {
            SCOPED_TRACE(std::string(scenario.name) + (playSounds ? "" : ", sounds off, a window without a name"));
            restart(playSounds);
            front->name = playSounds ? "Editor de texto" : "";
            script->startTakes = scenario.startTakes;
            for (const Step& step : scenario.steps)
                step(*this);
            EXPECT_EQ(states, scenario.states);
            EXPECT_EQ(sounds->played, playSounds ? scenario.sounds : QStringList());
            EXPECT_EQ(hudVisible() ? hudStatus() : QString(), scenario.hud);
            EXPECT_EQ(inserted, scenario.inserted);
            EXPECT_EQ(history.entries().size(), scenario.inserted.size());
            EXPECT_EQ(front->queryCount, script->made) << "each dictation names the application once";
            EXPECT_EQ(trust->lastPrompt, trust->checks > 0) << "the trust test must ask the user when access is missing";
            if (!scenario.inserted.isEmpty()) {
                EXPECT_EQ(frontQueriesAtInsertion, 1) << "the application is named before the text reaches it";
                EXPECT_EQ(history.entries().value(0).appName, QString(playSounds ? "Editor de texto" : "—"));
            }
            EXPECT_EQ(script->made, scenario.states.isEmpty() ? 0 : 1);
            EXPECT_EQ(script->finished, scenario.finished);
            EXPECT_EQ(script->cancelled, scenario.cancelled);
        }
    }
}

TEST_F(DictationTest, TheTimerOfAnOldMessageNeverHidesANewDictation)
{
    trust->trusted = false;
    controller->startRecording();
    trust->trusted = true;
    dictate();
    script->error(whisperFailed);
    controller->startRecording();
    TestSupport::spin(errorDelay * 2);
    EXPECT_TRUE(hudVisible()) << "the warning's or the error's timer hid a new dictation";
    EXPECT_EQ(hudStatus(), listening);
}

// The HUD shows a live engine's first text at once, then at most one a tenth of a second, its end in view.
TEST_F(DictationTest, LiveTextIsShownAtMostTenTimesASecondWithItsLatestWordsInView)
{
    controller->startRecording(1000);
    script->partial("Olá");
    EXPECT_EQ(hudText(), "Olá") << "the first text waited";
    QString said = "Olá,";
    QSet<QString> seen;
    const auto startedAt = std::chrono::steady_clock::now();
    for (int word = 0; word < 60; ++word) {
        said += QString(" palavra%1").arg(word);
        script->partial(said);
        TestSupport::spin(10ms);
        seen.insert(hudText());
    }
    EXPECT_LE(seen.size(), (std::chrono::steady_clock::now() - startedAt) / 100ms + 2) << "more texts shown than one a tenth of a second";
    EXPECT_GE(seen.size(), 3) << "the text stood still while the words came";
    ASSERT_TRUE(TestSupport::waitUntil([&] { return hudText().endsWith("palavra58 palavra59"); }, 2s)) << hudText().toStdString();

    controller->stopRecordingAndInsert(1400);
    EXPECT_EQ(hudStatus(), transcribing);
    script->partial(said + " fim.");
    ASSERT_TRUE(TestSupport::waitUntil([&] { return hudText().endsWith("palavra59 fim."); }, 2s)) << "no live text while finishing";
}

// A live text still waiting when its dictation ends (released, failed, too short) stays out of the next.
TEST_F(DictationTest, ALiveTextLeftWaitingNeverReachesTheNextDictation)
{
    const std::vector<Step> ends[] = {{up(1400), result("primeiro ditado")}, {failure}, {up(1100)}};
    for (const auto& end : ends) {
        restart();
        controller->startRecording(1000);
        script->partial("primeiro");
        script->partial("primeiro ditado");
        for (const Step& step : end)
            step(*this);
        controller->startRecording(2000);
        TestSupport::spin(300ms);
        EXPECT_EQ(hudStatus(), listening);
        EXPECT_EQ(hudText(), "") << "the earlier dictation's words came back";
    }
}

// Where no paste can reach the window the text stays on the clipboard; GNOME holds the first paste
// of a run behind its consent dialog. The HUD says what to do.
TEST_F(DictationTest, CopyOnlyLeavesTheTextOnTheClipboardAndGnomesConsentIsAskedFor)
{
    insertionMode = TextInserter::Mode::copyOnly;
    dictate();
    script->final(" texto ditado ");
    EXPECT_EQ(hudStatus(), "Texto copiado — cole com Ctrl+V");
    EXPECT_EQ(pasteboard->string(), "texto ditado") << "the clipboard was put back";
    EXPECT_EQ(history.entries().value(0).text, "texto ditado");

    insertionMode = TextInserter::Mode::askingConsent;
    dictate();
    script->final("texto ditado");
    EXPECT_EQ(hudStatus(), "Permita o controle remoto na janela do GNOME para o texto ser colado");
    EXPECT_TRUE(TestSupport::waitUntil([&] { return keyPoster->posted.size() == 2; })) << "the paste goes out all the same";
}

TEST(EngineChoice, WhisperOnlyWhenChosenAndInstalledOtherwiseTheNativeEngineSilently)
{
    const PlatformServices services = FakePlatformServices().services();
    const auto madeNative = [&](TranscriptionEngineKind chosen) {
        return dynamic_cast<SpeechTranscriber*>(DictationController::makeEngine(chosen, {}, services).get()) != nullptr;
    };
    TestSupport::FakeWhisper whisper;
    EXPECT_TRUE(madeNative(TranscriptionEngineKind::whisper)) << "no model installed yet";

    ASSERT_TRUE(TestSupport::writeFile(AppPaths::modelsFolder() + QStringLiteral("/ggml-small-q5_1.bin"), "model"));
    EXPECT_FALSE(madeNative(TranscriptionEngineKind::whisper)) << "Whisper is chosen and installed";
    EXPECT_TRUE(madeNative(TranscriptionEngineKind::apple));
}

}
