#include "DesktopApps.h"
#include "Engines/SpeechTranscriber.h"
#include "Platform/Fakes/FakeAudioInput.h"
#include "Platform/Linux/Audio/SoxrAudioConverter.h"
#include "Platform/Linux/LiveSpeech/LiveSpeechEngine.h"
#include "Platform/Linux/LiveSpeech/LiveSpeechRecognizer.h"
#include "Shared/LiveSpeechModel.h"
#include "TestSupport.h"

#include <QProcess>

#include <mutex>
#include <thread>

#include <gtest/gtest.h>

// The live engine on the real transcribe.cpp, with a toy model of the real Nemotron layout and
// made-up weights (bench/make_nemotron_model.py): its words mean nothing, but they are the same for
// the same audio and differ for different audio, so order, growth and separation are checkable.

using namespace std::chrono_literals;
using namespace TestSupport;

namespace {

const QString kToyModel = QStringLiteral(VOXARIA_TOY_NEMOTRON_MODEL);

// A recording as the recogniser hears it: 16 kHz mono 16-bit.
std::vector<qint16> speech(const QString& name)
{
    QProcess decoder;
    decoder.start("ffmpeg", {"-v", "error", "-i", testDataPath("speech/" + name), "-ar", "16000", "-ac", "1", "-f", "s16le", "-"});
    decoder.waitForFinished(30000);
    const QByteArray bytes = decoder.readAllStandardOutput();
    const auto* samples = reinterpret_cast<const qint16*>(bytes.constData());
    return {samples, samples + bytes.size() / 2};
}

// What one recognition reported, in order, from the engine's worker thread.
class Reports {
public:
    struct Seen {
        std::vector<SpeechRecognizer::Result> results;
        QStringList errors;
        bool hasFinal() const { return !results.empty() && results.back().isFinal; }
    };

    SpeechRecognizer::ResultHandler handler()
    {
        return [this](std::optional<SpeechRecognizer::Result> result, std::shared_ptr<const Error> error) {
            std::lock_guard lock(m_mutex);
            if (result)
                m_seen.results.push_back(*result);
            if (error)
                m_seen.errors << error->description();
        };
    }
    Seen seen() const
    {
        std::lock_guard lock(m_mutex);
        return m_seen;
    }
    bool waitForEnd() const
    {
        return waitUntil([this] { return seen().hasFinal() || !seen().errors.isEmpty(); }, 60s);
    }
    QString finalText() const { return seen().hasFinal() ? seen().results.back().text : QString(); }

private:
    mutable std::mutex m_mutex;
    Seen m_seen;
};

// Feeds audio the way the microphone does, in 20 ms buffers.
void feed(SpeechRecognizer::Request& request, std::span<const qint16> samples)
{
    constexpr std::size_t kBuffer = SpeechRecognizer::sampleRate / 50;
    for (std::size_t at = 0; at < samples.size(); at += kBuffer)
        request.append(samples.subspan(at, std::min(kBuffer, samples.size() - at)));
}

// One whole dictation of a recording: its reports once the final text came.
void dictate(LiveSpeechRecognizer& recognizer, const std::vector<qint16>& samples, Reports& reports)
{
    auto request = recognizer.makeRequest(true);
    auto task = recognizer.startTask(request, reports.handler());
    feed(*request, samples);
    request->endAudio();
    ASSERT_TRUE(reports.waitForEnd());
}

class LiveSpeechTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        portuguese = speech(QStringLiteral("fleurs-pt-001.ogg"));
        english = speech(QStringLiteral("fleurs-en-005.ogg"));
    }

    std::shared_ptr<LiveSpeechEngine> engine = std::make_shared<LiveSpeechEngine>(kToyModel);
    LiveSpeechRecognizer recognizer{engine, QStringLiteral("pt-BR")};
    static inline std::vector<qint16> portuguese, english;
};

// Partial texts grow as the audio comes, the final one only after its end. The first dictation, heard
// while the model loads, gets the text its audio gets later with a second dictation started on its
// heels; one cancelled mid-speech reports nothing more and leaves the next unaffected.
TEST_F(LiveSpeechTest, TextsGrowWhileTheAudioComesAndEachDictationKeepsItsOwn)
{
    ASSERT_GT(portuguese.size(), std::size_t(SpeechRecognizer::sampleRate * 8)) << "ffmpeg could not decode the speech";
    const std::span<const qint16> all(portuguese);
    Reports alonePortuguese, aloneEnglish;
    auto growing = recognizer.makeRequest(true);
    auto growingTask = recognizer.startTask(growing, alonePortuguese.handler());
    feed(*growing, all.first(all.size() / 2));
    ASSERT_TRUE(waitUntil([&] { return !alonePortuguese.seen().results.empty(); }, 60s)) << "no text while half the recording was heard";
    feed(*growing, all.subspan(all.size() / 2));
    // Without the end of the audio nothing is final, however long the recogniser had.
    std::this_thread::sleep_for(3s);
    EXPECT_FALSE(alonePortuguese.seen().hasFinal());
    growing->endAudio();
    ASSERT_TRUE(alonePortuguese.waitForEnd());
    const Reports::Seen seen = alonePortuguese.seen();
    ASSERT_GE(seen.results.size(), std::size_t(2));
    EXPECT_FALSE(alonePortuguese.finalText().trimmed().isEmpty());
    for (std::size_t i = 0; i + 1 < seen.results.size(); ++i) {
        EXPECT_FALSE(seen.results[i].text.isEmpty());
        EXPECT_FALSE(seen.results[i].isFinal) << "a final text before the last";
        EXPECT_TRUE(i == 0 || seen.results[i].text != seen.results[i - 1].text) << "a partial text repeated the one before";
    }
    EXPECT_TRUE(seen.errors.isEmpty()) << seen.errors.join(' ').toStdString();

    dictate(recognizer, english, aloneEnglish);
    EXPECT_NE(alonePortuguese.finalText(), aloneEnglish.finalText());
    Reports first, second;
    auto firstRequest = recognizer.makeRequest(true);
    auto firstTask = recognizer.startTask(firstRequest, first.handler());
    feed(*firstRequest, portuguese);
    firstRequest->endAudio();
    auto secondRequest = recognizer.makeRequest(true);
    auto secondTask = recognizer.startTask(secondRequest, second.handler());
    feed(*secondRequest, english);
    secondRequest->endAudio();
    ASSERT_TRUE(first.waitForEnd() && second.waitForEnd());
    EXPECT_EQ(first.finalText(), alonePortuguese.finalText());
    EXPECT_EQ(second.finalText(), aloneEnglish.finalText());

    Reports cancelled;
    auto request = recognizer.makeRequest(true);
    auto task = recognizer.startTask(request, cancelled.handler());
    feed(*request, all.first(all.size() / 2));
    ASSERT_TRUE(waitUntil([&] { return !cancelled.seen().results.empty(); }, 60s));
    task->cancel();
    const std::size_t reported = cancelled.seen().results.size();
    feed(*request, all.subspan(all.size() / 2));
    request->endAudio();
    Reports next;
    dictate(recognizer, english, next);
    EXPECT_EQ(next.finalText(), aloneEnglish.finalText());
    EXPECT_LE(cancelled.seen().results.size(), reported + 1) << "at most the step under way at the cancel reports";
    EXPECT_FALSE(cancelled.seen().hasFinal());
}

// Unused for its idle time, the model leaves memory; the next dictation loads it again.
TEST_F(LiveSpeechTest, AnIdleModelIsReleasedAndLoadedAgainWhenNeeded)
{
    auto brief = std::make_shared<LiveSpeechEngine>(kToyModel, 300ms);
    LiveSpeechRecognizer recognizerOfBrief(brief, QStringLiteral("pt-BR"));
    recognizerOfBrief.prepare();
    ASSERT_TRUE(waitUntil([&] { return brief->isLoaded(); }, 20s));
    Reports first;
    dictate(recognizerOfBrief, english, first);
    ASSERT_TRUE(waitUntil([&] { return !brief->isLoaded(); }, 5s)) << "the model stayed after its idle time";
    Reports again;
    dictate(recognizerOfBrief, english, again);
    EXPECT_EQ(again.finalText(), first.finalText());
}

// The languages are the model's, whatever the case or separator of the setting.
TEST(LiveSpeechLanguages, TheModelsLocalesAreRecognisedAndOthersAreNot)
{
    EXPECT_EQ(LiveSpeechRecognizer::languageFor(QStringLiteral("pt_br")), QStringLiteral("pt-BR"));
    EXPECT_EQ(LiveSpeechRecognizer::languageFor(QStringLiteral("EN-us")), QStringLiteral("en-US"));
    EXPECT_EQ(LiveSpeechRecognizer::languageFor(QStringLiteral("he-IL")), std::nullopt) << "known to the model, not transcribed";
    EXPECT_EQ(LiveSpeechRecognizer::languageFor(QString()), std::nullopt);
}

// A model that is none, or cut short by an interrupted copy, fails a dictation with a message saying
// so, and nothing crashes; installed whole again, it serves the next one.
TEST(LiveSpeechModelFile, ADamagedModelIsAMessageNotACrash)
{
    const QByteArray model = DesktopApps::readAll(kToyModel);
    for (const QByteArray& bytes : {QByteArray("GGUF but nothing after it"), model.left(model.size() / 2), model}) {
        SCOPED_TRACE(bytes.size());
        ASSERT_TRUE(writeFile(LiveSpeechModel::installedPath(), bytes));
        SpeechTranscriber engine(std::make_unique<FakeAudioInput>(), &LiveSpeechRecognizer::forLocale, &SoxrAudioConverter::make, {});
        EngineAnswers answers;
        answers.start(engine);
        if (bytes == model)
            engine.finish();
        ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 20s));
        EXPECT_EQ(answers.count(), 1);
        EXPECT_EQ(answers.finals.size(), bytes == model ? 1 : 0) << answers.errors.join(' ').toStdString();
        EXPECT_EQ(answers.errors.filter("danificado").size(), bytes == model ? 0 : 1) << answers.errors.join(' ').toStdString();
    }
}

}
