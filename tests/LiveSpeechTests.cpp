#include "Engines/SpeechTranscriber.h"
#include "Platform/Fakes/FakeAudioInput.h"
#include "Platform/Linux/Audio/SoxrAudioConverter.h"
#include "Platform/Linux/LiveSpeech/LiveSpeechEngine.h"
#include "Platform/Linux/LiveSpeech/LiveSpeechRecognizer.h"
#include "Shared/LiveSpeechModel.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <condition_variable>
#include <cstring>
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
    decoder.start(QStringLiteral("ffmpeg"),
        {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), testDataPath(QStringLiteral("speech/") + name),
            QStringLiteral("-ar"), QStringLiteral("16000"), QStringLiteral("-ac"), QStringLiteral("1"), QStringLiteral("-f"),
            QStringLiteral("s16le"), QStringLiteral("-")});
    decoder.waitForFinished(30000);
    const QByteArray bytes = decoder.readAllStandardOutput();
    std::vector<qint16> samples(std::size_t(bytes.size()) / 2);
    std::memcpy(samples.data(), bytes.constData(), samples.size() * 2);
    return samples;
}

// What one recognition reported, in order, from the engine's worker thread.
class Reports {
public:
    SpeechRecognizer::ResultHandler handler()
    {
        return [this](std::optional<SpeechRecognizer::Result> result, std::shared_ptr<const Error> error) {
            std::lock_guard lock(m_mutex);
            if (result)
                m_results.push_back(*result);
            if (error)
                m_errors << error->description();
            m_changed.notify_all();
        };
    }

    bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 60s)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, timeout, condition);
    }
    bool waitForPartial()
    {
        return waitFor([this] { return !m_results.empty(); });
    }
    bool waitForEnd()
    {
        return waitFor([this] { return hasFinal() || !m_errors.isEmpty(); });
    }

    std::vector<SpeechRecognizer::Result> results() const
    {
        std::lock_guard lock(m_mutex);
        return m_results;
    }
    QStringList errors() const
    {
        std::lock_guard lock(m_mutex);
        return m_errors;
    }
    QString finalText() const
    {
        std::lock_guard lock(m_mutex);
        return hasFinal() ? m_results.back().text : QString();
    }

private:
    bool hasFinal() const { return !m_results.empty() && m_results.back().isFinal; }

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<SpeechRecognizer::Result> m_results;
    QStringList m_errors;
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

TEST_F(LiveSpeechTest, PartialTextsGrowWhileTheAudioComesAndTheFinalOneOnlyAfterItsEnd)
{
    ASSERT_GT(portuguese.size(), std::size_t(SpeechRecognizer::sampleRate * 8)) << "ffmpeg could not decode the speech";
    Reports reports;
    auto request = recognizer.makeRequest(true);
    auto task = recognizer.startTask(request, reports.handler());
    const std::span<const qint16> all(portuguese);
    feed(*request, all.first(all.size() / 2));
    ASSERT_TRUE(reports.waitForPartial()) << "no text while half the recording was heard";
    feed(*request, all.subspan(all.size() / 2));
    // Without the end of the audio nothing is final, however long the recogniser had.
    std::this_thread::sleep_for(3s);
    for (const auto& result : reports.results())
        EXPECT_FALSE(result.isFinal);
    request->endAudio();
    ASSERT_TRUE(reports.waitForEnd());

    const auto results = reports.results();
    ASSERT_GE(results.size(), std::size_t(2));
    EXPECT_TRUE(results.back().isFinal);
    EXPECT_FALSE(results.back().text.trimmed().isEmpty());
    for (std::size_t i = 0; i + 1 < results.size(); ++i) {
        EXPECT_FALSE(results[i].text.isEmpty());
        EXPECT_FALSE(results[i].isFinal) << "a final text before the last";
        if (i > 0) {
            EXPECT_NE(results[i].text, results[i - 1].text) << "a partial text repeated the one before";
        }
    }
    EXPECT_TRUE(reports.errors().isEmpty()) << reports.errors().join(' ').toStdString();
}

// Two dictations in a row, the second started while the first still finishes: each gets the text
// of its own audio, the one it gets when alone, and different audio gives a different text. The
// first one alone is heard while the model loads: none of its audio is lost to the loading.
TEST_F(LiveSpeechTest, TwoQuickDictationsKeepTheirOwnTexts)
{
    Reports alonePortuguese, aloneEnglish;
    dictate(recognizer, portuguese, alonePortuguese);
    dictate(recognizer, english, aloneEnglish);
    ASSERT_FALSE(alonePortuguese.finalText().isEmpty());
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
}

// Cancelled while it speaks, a recognition reports nothing more, and the next one works.
TEST_F(LiveSpeechTest, ACancelledRecognitionFallsSilentAndTheNextOneWorks)
{
    Reports cancelled;
    auto request = recognizer.makeRequest(true);
    auto task = recognizer.startTask(request, cancelled.handler());
    const std::span<const qint16> all(portuguese);
    feed(*request, all.first(all.size() / 2));
    ASSERT_TRUE(cancelled.waitForPartial());
    task->cancel();
    const std::size_t reported = cancelled.results().size();
    feed(*request, all.subspan(all.size() / 2));
    request->endAudio();

    Reports next;
    dictate(recognizer, english, next);
    EXPECT_FALSE(next.finalText().isEmpty());
    EXPECT_LE(cancelled.results().size(), reported + 1) << "at most the step under way at the cancel reports";
    for (const auto& result : cancelled.results())
        EXPECT_FALSE(result.isFinal);
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

// With a damaged model a dictation fails with a message saying so, and nothing crashes. (Without
// one, the refusal is met end to end.)
TEST(LiveSpeechModelFile, ADamagedModelIsAMessageNotACrash)
{
    const auto live = [] {
        return SpeechTranscriber(std::make_unique<FakeAudioInput>(), &LiveSpeechRecognizer::forLocale, &SoxrAudioConverter::make, {});
    };
    const QString installed = LiveSpeechModel::installedPath();

    QFile toy(kToyModel);
    ASSERT_TRUE(toy.open(QIODevice::ReadOnly));
    const QByteArray model = toy.readAll();
    const std::pair<const char*, QByteArray> damages[] = {
        {"not a model", QByteArray("GGUF but nothing after it")},
        {"cut short by an interrupted copy", model.left(model.size() / 2)},
    };
    for (const auto& [name, bytes] : damages) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(writeFile(installed, bytes));
        SpeechTranscriber engine = live();
        EngineAnswers answers;
        answers.start(engine);
        ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 20s));
        ASSERT_EQ(answers.errors.size(), 1);
        EXPECT_TRUE(answers.errors.first().contains(QStringLiteral("danificado"))) << answers.errors.first().toStdString();
    }

    // Installed whole again, it serves the next dictation.
    ASSERT_TRUE(writeFile(installed, model));
    SpeechTranscriber engine = live();
    EngineAnswers answers;
    answers.start(engine);
    engine.finish();
    ASSERT_TRUE(waitUntil([&] { return answers.answered(); }, 20s));
    EXPECT_EQ(answers.finals.size(), 1) << answers.errors.join(' ').toStdString();
}

}
