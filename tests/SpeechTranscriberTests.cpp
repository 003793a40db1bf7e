#include "Engines/SpeechTranscriber.h"
#include "Platform/Fakes/FakeAudioInput.h"
#include "Platform/Fakes/FakeSpeechRecognizer.h"
#include "Platform/Linux/Audio/SoxrAudioConverter.h"
#include "TestSupport.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using namespace TestSupport;

namespace {

// The engine on a scripted microphone and recogniser; the final delay is short unless a test
// measures the real one.
class SpeechTranscriberTest : public ::testing::Test {
protected:
    std::unique_ptr<SpeechTranscriber> makeEngine(std::chrono::milliseconds finalDelay = 300ms)
    {
        auto input = std::make_unique<FakeAudioInput>();
        microphone = input.get();
        return std::make_unique<SpeechTranscriber>(
            std::move(input), [this](const QString&) -> std::shared_ptr<SpeechRecognizer> { return recognizer; }, &SoxrAudioConverter::make,
            options, finalDelay);
    }

    // A new engine already dictating, with nothing answered yet.
    std::unique_ptr<SpeechTranscriber> startEngine(std::chrono::milliseconds finalDelay = 300ms)
    {
        auto engine = makeEngine(finalDelay);
        answers = {};
        answers.start(*engine);
        return engine;
    }

    std::shared_ptr<FakeSpeechRecognizer> recognizer = std::make_shared<FakeSpeechRecognizer>();
    DictationOptions options{QStringLiteral("en-US")};
    FakeAudioInput* microphone = nullptr;
    EngineAnswers answers;
};

TEST_F(SpeechTranscriberTest, PartialsAreWholeTextsOnTheMainThreadAndTheLastIsTheFinalTwoSecondsAfterFinish)
{
    auto engine = startEngine(SpeechTranscriber::defaultFinalDelay);
    recognizer->sendPartial("hello");
    recognizer->sendPartial("hello world");
    ASSERT_TRUE(waitUntil([&] { return answers.partials.size() == 2; }));
    EXPECT_EQ(answers.partials, QStringList({"hello", "hello world"}));

    QElapsedTimer clock;
    clock.start();
    engine->finish();
    ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 20s));
    EXPECT_GE(clock.elapsed(), 1950) << "the last partial text came before the final delay was over";
    EXPECT_EQ(answers.finals, QStringList({"hello world"}));
    EXPECT_TRUE(answers.onMainThread);
}

// A dictation answers once, with the recogniser's text untrimmed or with an error; an error ends it
// only while recording with nothing heard yet, or when the microphone goes.
TEST_F(SpeechTranscriberTest, EachWayADictationEndsAnswersItOnceAndACancelOrARefusedStartNever)
{
    const auto finalThenError = [this] {
        recognizer->sendFinal("go forward ten meters ");
        recognizer->sendError("late failure");
    };
    const auto heardThenError = [this] {
        recognizer->sendPartial("ok then");
        recognizer->sendError("network lost");
    };
    const auto heardThenMicrophoneGone = [this] {
        recognizer->sendPartial("ok then");
        ASSERT_TRUE(waitUntil([&] { return answers.partials.size() == 1; }));
        microphone->disconnect();
    };
    const auto error = [this](const char* description) { return [this, description] { recognizer->sendError(description); }; };
    const struct {
        const char* name;
        std::function<void()> whileHeld, afterRelease;
        bool answeredWhileHeld;
        QStringList finals, errors;
    } endings[] = {
        {"final text while recording, then an error", finalThenError, {}, true, {"go forward ten meters "}, {}},
        {"final text after the release, then an error", {}, finalThenError, false, {"go forward ten meters "}, {}},
        {"error while recording, nothing heard", error("Nenhuma fala detectada"), {}, true, {}, {"Nenhuma fala detectada"}},
        {"error after text was heard: ignored", heardThenError, {}, false, {"ok then"}, {}},
        {"microphone gone after text was heard", heardThenMicrophoneGone, [this] { recognizer->sendFinal("ok then"); }, true, {},
            {"O microfone foi desconectado durante o ditado."}},
        {"error after the release, nothing heard: an empty text", {}, error("no speech"), false, {""}, {}},
    };
    for (const auto& ending : endings) {
        SCOPED_TRACE(ending.name);
        auto engine = startEngine();
        if (ending.whileHeld)
            ending.whileHeld();
        EXPECT_EQ(waitUntil([&] { return answers.answered(); }, 1s), ending.answeredWhileHeld);
        // Only the release or a failure stops the microphone; a final text does not.
        EXPECT_EQ(microphone->isRunning(), ending.errors.isEmpty());
        engine->finish();
        if (ending.afterRelease)
            ending.afterRelease();
        ASSERT_TRUE(waitUntil([&] { return answers.answered(); }));
        spin(500ms); // past the final timer: it must find the dictation answered
        EXPECT_EQ(answers.finals, ending.finals);
        EXPECT_EQ(answers.errors, ending.errors);
        EXPECT_FALSE(microphone->isRunning());
        EXPECT_TRUE(recognizer->audioEnded() && recognizer->taskCancelled());
    }

    // A cancel or the engine's end silences everything still on its way.
    for (const auto& [name, released, destroyed] : {std::tuple{"cancel while recording", false, false},
             {"cancel during the final wait", true, false}, {"engine destroyed during the final wait", true, true}}) {
        SCOPED_TRACE(name);
        auto engine = startEngine();
        recognizer->sendPartial("in flight"); // queued, not yet on the main thread
        if (released)
            engine->finish();
        destroyed ? engine.reset() : engine->cancel();
        recognizer->sendFinal("in flight too");
        spin(500ms); // past the final timer
        EXPECT_TRUE(answers.partials.isEmpty());
        EXPECT_EQ(answers.count(), 0);
        EXPECT_TRUE(recognizer->audioEnded() && recognizer->taskCancelled());
        EXPECT_TRUE(destroyed || !microphone->isRunning());
    }

    // A language no recogniser knows is refused at once, before the microphone is touched, and leaves
    // nothing pending. (A refused language followed by a dictation that works is met end to end.)
    options.localeIdentifier.clear();
    recognizer = nullptr;
    auto engine = makeEngine();
    answers = {};
    EXPECT_EQ(answers.startFailure(*engine),
        "Reconhecimento de fala indisponível para o idioma . Baixe o modelo do motor nativo no menu ou escolha outro idioma.");
    EXPECT_EQ(microphone->startCount, 0);
    engine->finish();
    spin(500ms);
    EXPECT_EQ(answers.count(), 0);
}

}
