#include "Shared/AppPaths.h"
#include "Dictation/DictationController.h"
#include "History/HistoryStore.h"
#include "Platform/Fakes/FakeAccessibilityTrust.h"
#include "Platform/Fakes/FakeFrontApplication.h"
#include "Platform/Fakes/FakeSounds.h"
#include "App/Settings.h"
#include "Engines/SpeechTranscriber.h"
#include "Engines/WhisperError.h"
#include "Engines/WhisperTranscriber.h"

#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QLabel>
#include <QWidget>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using State = DictationController::State;

namespace {

// What the engines of one test were asked to do, and the callbacks of the latest one, which the
// test calls to play the engine's part (also after the engine itself is gone, as a late event would).
struct EngineScript {
    int made = 0;
    int finished = 0;
    int cancelled = 0;
    std::shared_ptr<const Error> startFailure;
    TranscriptionEngine::PartialCallback partial;
    TranscriptionEngine::FinalCallback final;
    TranscriptionEngine::ErrorCallback error;
};

class ScriptedEngine final : public TranscriptionEngine {
public:
    explicit ScriptedEngine(std::shared_ptr<EngineScript> script) : m_script(std::move(script)) { ++m_script->made; }

    void start(PartialCallback onPartial, FinalCallback onFinal, ErrorCallback onError) override
    {
        if (m_script->startFailure)
            throw WhisperError(static_cast<const WhisperError&>(*m_script->startFailure));
        m_script->partial = std::move(onPartial);
        m_script->final = std::move(onFinal);
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

class DictationTest : public ::testing::Test {
protected:
    static constexpr auto accessibilityDelay = 150ms;
    static constexpr auto errorDelay = 250ms;

    void SetUp() override
    {
        Settings::shared().setPlaySounds(true);
        HistoryStore::shared().clear();
        makeController({300ms, accessibilityDelay, errorDelay});
    }

    void makeController(DictationController::Timing timing)
    {
        DictationController::Collaborators collaborators;
        collaborators.makeEngine = [script = script] { return std::make_unique<ScriptedEngine>(script); };
        auto fakeSounds = std::make_unique<FakeSounds>();
        sounds = fakeSounds.get();
        collaborators.sounds = std::move(fakeSounds);
        auto fakeTrust = std::make_unique<FakeAccessibilityTrust>();
        trust = fakeTrust.get();
        collaborators.accessibility = std::move(fakeTrust);
        auto fakeFront = std::make_unique<FakeFrontApplication>();
        front = fakeFront.get();
        front->name = QStringLiteral("Editor de texto");
        collaborators.frontApplication = std::move(fakeFront);
        collaborators.insertText = [this](const QString& text) {
            inserted << text;
            frontQueriesAtInsertion = front->queryCount;
        };
        collaborators.timing = timing;
        controller = std::make_unique<DictationController>(std::move(collaborators));
        controller->onStateChange = [this](State state) { states << state; };
    }

    bool hudVisible() { return controller->hud().panel()->isVisible(); }
    QString hudStatus() { return controller->hud().panel()->accessibleName(); }
    // The HUD's second line, empty when it is hidden.
    QString hudText()
    {
        for (QLabel* label : controller->hud().panel()->findChildren<QLabel*>()) {
            if (!label->isHidden() && label->text() != hudStatus())
                return label->text();
        }
        return {};
    }

    // A press held long enough to count as a dictation, then released.
    void dictate()
    {
        controller->startRecording();
        TestSupport::spin(320ms);
        controller->stopRecordingAndInsert();
    }

    std::shared_ptr<EngineScript> script = std::make_shared<EngineScript>();
    FakeSounds* sounds = nullptr;
    FakeAccessibilityTrust* trust = nullptr;
    FakeFrontApplication* front = nullptr;
    QStringList inserted;
    int frontQueriesAtInsertion = -1;
    QList<State> states;
    std::unique_ptr<DictationController> controller;
};

TEST_F(DictationTest, AHeldKeyListensTranscribesPastesAndRecords)
{
    controller->startRecording();
    EXPECT_EQ(controller->state(), State::recording);
    EXPECT_TRUE(hudVisible());
    EXPECT_EQ(hudStatus(), listening);
    EXPECT_EQ(sounds->played, QStringList{"Tink"});
    EXPECT_TRUE(trust->lastPrompt) << "the trust test must ask the user when access is missing";

    script->partial("go for");
    EXPECT_EQ(hudText(), "go for");

    TestSupport::spin(320ms);
    controller->stopRecordingAndInsert();
    EXPECT_EQ(controller->state(), State::finishing);
    EXPECT_EQ(hudStatus(), transcribing);
    EXPECT_EQ(hudText(), "") << "the second line is emptied with every new status";
    EXPECT_EQ(script->finished, 1);

    script->final("  go forward ten meters\n ");
    EXPECT_EQ(controller->state(), State::idle);
    EXPECT_FALSE(hudVisible());
    EXPECT_EQ(sounds->played, (QStringList{"Tink", "Pop"}));
    EXPECT_EQ(inserted, QStringList{"go forward ten meters"});
    EXPECT_EQ(frontQueriesAtInsertion, 1) << "the application is named before the text reaches it";
    ASSERT_EQ(HistoryStore::shared().entries().size(), 1);
    EXPECT_EQ(HistoryStore::shared().entries().first().text, "go forward ten meters");
    EXPECT_EQ(HistoryStore::shared().entries().first().appName, "Editor de texto");
    EXPECT_EQ(states, (QList<State>{State::recording, State::finishing, State::idle}));
}

TEST_F(DictationTest, AShortPressLeavesNoTrace)
{
    controller->startRecording();
    TestSupport::spin(100ms);
    controller->stopRecordingAndInsert();
    EXPECT_EQ(controller->state(), State::idle);
    EXPECT_EQ(script->cancelled, 1);
    EXPECT_EQ(script->finished, 0);
    EXPECT_FALSE(hudVisible());

    script->final("late words"); // a result already on its way is dropped
    EXPECT_TRUE(inserted.isEmpty());
    EXPECT_TRUE(HistoryStore::shared().entries().isEmpty());
    EXPECT_EQ(sounds->played, QStringList{"Tink"});
    EXPECT_EQ(states, (QList<State>{State::recording, State::idle}));
}

TEST_F(DictationTest, KeysDuringAFinishingDictationAreIgnored)
{
    dictate();
    controller->startRecording();
    controller->stopRecordingAndInsert();
    EXPECT_EQ(script->made, 1);
    EXPECT_EQ(trust->checks, 1) << "a press during a dictation must not even ask for access";
    EXPECT_EQ(script->finished, 1);
    EXPECT_EQ(hudStatus(), transcribing);

    script->final("primeiro ditado");
    EXPECT_EQ(inserted, QStringList{"primeiro ditado"});
    controller->stopRecordingAndInsert(); // a stray release while idle
    EXPECT_EQ(states, (QList<State>{State::recording, State::finishing, State::idle}));
}

TEST_F(DictationTest, AnEngineThatEndsWhileTheKeyIsHeldCompletesTheDictation)
{
    controller->startRecording();
    script->final("já terminou");
    EXPECT_EQ(controller->state(), State::idle);
    EXPECT_EQ(inserted, QStringList{"já terminou"});
    controller->stopRecordingAndInsert();
    EXPECT_EQ(script->finished, 0);
}

TEST_F(DictationTest, AnEmptyResultOnlySoundsBasso)
{
    dictate();
    script->final(" \n\t ");
    EXPECT_EQ(controller->state(), State::idle);
    EXPECT_FALSE(hudVisible());
    EXPECT_EQ(sounds->played, (QStringList{"Tink", "Basso"}));
    EXPECT_TRUE(inserted.isEmpty());
    EXPECT_EQ(front->queryCount, 0);
    EXPECT_TRUE(HistoryStore::shared().entries().isEmpty());
}

TEST_F(DictationTest, WithoutAFrontApplicationTheHistoryNamesADash)
{
    front->name.reset();
    dictate();
    script->final("sem janela");
    front->name = QString();
    dictate();
    script->final("janela sem nome");
    ASSERT_EQ(HistoryStore::shared().entries().size(), 2);
    EXPECT_EQ(HistoryStore::shared().entries().at(0).appName, "—");
    EXPECT_EQ(HistoryStore::shared().entries().at(1).appName, "—");
}

TEST_F(DictationTest, AnErrorIsShownThenHiddenUnlessANewDictationRuns)
{
    dictate();
    script->error(WhisperError::transcriptionFailed(QStringLiteral("código 1")));
    EXPECT_EQ(controller->state(), State::idle);
    EXPECT_TRUE(hudVisible());
    EXPECT_EQ(hudStatus(), "⚠️ Falha na transcrição Whisper: código 1");
    EXPECT_EQ(sounds->played, (QStringList{"Tink", "Basso"}));

    // A new press within the old delay keeps its HUD past that delay.
    TestSupport::spin(errorDelay / 2);
    controller->startRecording();
    TestSupport::spin(errorDelay);
    EXPECT_TRUE(hudVisible());
    EXPECT_EQ(hudStatus(), listening);

    controller->stopRecordingAndInsert();
    script->error(WhisperError::notInstalled());
    EXPECT_TRUE(hudVisible());
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !hudVisible(); }, 2s)) << "the error must go away by itself";
    EXPECT_EQ(script->made, 2);
}

TEST_F(DictationTest, AnEngineThatCannotStartReportsAtOnceAndStaysIdle)
{
    script->startFailure = std::make_shared<WhisperError>(WhisperError::modelMissing());
    controller->startRecording();
    EXPECT_EQ(controller->state(), State::idle);
    EXPECT_EQ(states, QList<State>{State::idle});
    EXPECT_EQ(hudStatus(), QStringLiteral("⚠️ ") + WhisperError::modelMissing().description());
    EXPECT_EQ(sounds->played, QStringList{"Basso"});
    controller->stopRecordingAndInsert();
    EXPECT_EQ(script->finished + script->cancelled, 0);
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !hudVisible(); }, 2s));

    script->startFailure.reset();
    controller->startRecording();
    EXPECT_EQ(controller->state(), State::recording) << "the next press starts afresh";
}

TEST_F(DictationTest, WithoutKeyboardAccessNothingStarts)
{
    trust->trusted = false;
    controller->startRecording();
    EXPECT_EQ(controller->state(), State::idle);
    EXPECT_EQ(script->made, 0);
    EXPECT_TRUE(states.isEmpty());
    EXPECT_TRUE(sounds->played.isEmpty());
    EXPECT_EQ(hudStatus(), accessibilityWarning);
    controller->stopRecordingAndInsert();
    EXPECT_TRUE(TestSupport::waitUntil([&] { return !hudVisible(); }, 2s));

    // Granted within the warning's delay: the dictation's HUD survives the old timer.
    controller->startRecording();
    trust->trusted = true;
    TestSupport::spin(accessibilityDelay / 3);
    controller->startRecording();
    TestSupport::spin(accessibilityDelay * 2);
    EXPECT_EQ(controller->state(), State::recording);
    EXPECT_TRUE(hudVisible());
    EXPECT_EQ(hudStatus(), listening);
}

TEST_F(DictationTest, SoundsOffSilencesEveryCaseAndChangesNothingElse)
{
    Settings::shared().setPlaySounds(false);
    dictate();
    script->final("texto");
    dictate();
    script->final("  ");
    dictate();
    script->error(WhisperError::notInstalled());
    Settings::shared().setPlaySounds(true);
    EXPECT_TRUE(sounds->played.isEmpty());
    EXPECT_EQ(inserted, QStringList{"texto"});
    EXPECT_EQ(HistoryStore::shared().entries().size(), 1);
}

TEST_F(DictationTest, TimersAndCallbacksOutlivingTheControllerDoNothing)
{
    dictate();
    script->error(WhisperError::notInstalled());
    controller.reset();
    script->final("tarde demais");
    TestSupport::spin(errorDelay * 2);
    EXPECT_TRUE(inserted.isEmpty());
}

TEST(DictationTiming, MessagesStayForThreeAndFourSeconds)
{
    DictationController::Collaborators collaborators;
    auto trust = std::make_unique<FakeAccessibilityTrust>();
    trust->trusted = false;
    FakeAccessibilityTrust* trustPtr = trust.get();
    collaborators.accessibility = std::move(trust);
    collaborators.sounds = std::make_unique<FakeSounds>();
    collaborators.makeEngine = [] {
        auto script = std::make_shared<EngineScript>();
        script->startFailure = std::make_shared<WhisperError>(WhisperError::notInstalled());
        return std::make_unique<ScriptedEngine>(script);
    };
    DictationController controller(std::move(collaborators));

    controller.startRecording();
    TestSupport::spin(2850ms);
    EXPECT_TRUE(controller.hud().panel()->isVisible()) << "the accessibility warning went too early";
    TestSupport::spin(300ms);
    EXPECT_FALSE(controller.hud().panel()->isVisible()) << "the accessibility warning stayed too long";

    trustPtr->trusted = true;
    controller.startRecording();
    TestSupport::spin(3850ms);
    EXPECT_TRUE(controller.hud().panel()->isVisible()) << "the error went too early";
    TestSupport::spin(300ms);
    EXPECT_FALSE(controller.hud().panel()->isVisible()) << "the error stayed too long";
}

// The engine follows the "engine" setting and what is installed.
class EngineChoice : public ::testing::Test {
protected:
    void TearDown() override
    {
        QDir(AppPaths::modelsFolder()).removeRecursively();
        Settings::shared().setEngine(TranscriptionEngineKind::whisper);
    }
    static void installModel()
    {
        QDir().mkpath(AppPaths::modelsFolder());
        QFile model(AppPaths::modelsFolder() + QStringLiteral("/ggml-small-q5_1.bin"));
        ASSERT_TRUE(model.open(QIODevice::WriteOnly));
        model.write("model");
    }
    template <typename Engine>
    static bool madeA()
    {
        std::unique_ptr<TranscriptionEngine> engine = DictationController::makeEngine();
        return dynamic_cast<Engine*>(engine.get()) != nullptr;
    }
};

TEST_F(EngineChoice, WhisperOnlyWhenChosenAndInstalledOtherwiseTheNativeEngineSilently)
{
    TestSupport::FakeWhisper whisper;
    Settings::shared().setEngine(TranscriptionEngineKind::whisper);
    EXPECT_TRUE(madeA<SpeechTranscriber>()) << "no model installed yet";
    EXPECT_EQ(Settings::shared().engine(), TranscriptionEngineKind::whisper) << "the fallback leaves the setting alone";

    installModel();
    EXPECT_TRUE(madeA<WhisperTranscriber>());

    Settings::shared().setEngine(TranscriptionEngineKind::apple);
    EXPECT_TRUE(madeA<SpeechTranscriber>());
}

}

namespace {

TEST(KeyboardAccess, AnXServerWithXInput2AndXTestIsTrusted)
{
    if (!TestSupport::hasX11())
        GTEST_SKIP() << "needs an X display (run under scripts/with-harness.sh)";
    EXPECT_TRUE(AccessibilityTrust::makeDefault()->isTrusted(false));
}

}
