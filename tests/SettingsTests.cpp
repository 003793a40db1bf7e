#include "Shared/Preferences/Settings.h"

#include "Shared/AppPaths.h"
#include "TestSupport.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

// Settings on a file of the test's own; rawStore() is that file as another writer (or an older
// version) would see it.
class SettingsTest : public ::testing::Test {
protected:
    QTemporaryDir scratch;
    Settings settings{scratch.filePath("settings.conf")};
    QSettings rawStore() { return QSettings(scratch.filePath("settings.conf"), QSettings::NativeFormat); }
};

TEST_F(SettingsTest, FreshInstallationReadsTheDefaults)
{
    EXPECT_EQ(AppPaths::settingsFile(), QSettings(QSettings::NativeFormat, QSettings::UserScope, AppPaths::applicationId()).fileName())
        << "the user's preferences stay in the file earlier versions wrote";
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::whisper);
    EXPECT_EQ(settings.whisperModelFileName(), "ggml-large-v3-turbo-q5_0.bin");
    EXPECT_EQ(settings.hotKey(), HotKey::rightOption);
    EXPECT_EQ(settings.localeIdentifier(), "pt-BR");
    EXPECT_TRUE(settings.preferOnDevice());
    EXPECT_TRUE(settings.playSounds());
}

TEST_F(SettingsTest, WritesAreReadBackAtOnceAndStoredAsRawValuesAndBooleansAreTrueOnlyWhenAbsent)
{
    settings.setEngine(TranscriptionEngineKind::apple);
    settings.setHotKey(HotKey::fn);
    settings.setPlaySounds(false);
    settings.setPreferOnDevice(false);
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::apple);
    EXPECT_EQ(settings.hotKey(), HotKey::fn);
    EXPECT_FALSE(settings.playSounds());
    EXPECT_FALSE(settings.preferOnDevice());
    EXPECT_EQ(rawStore().value("engine").toString(), "apple");
    EXPECT_EQ(rawStore().value("hotKey").toString(), "fn");

    rawStore().remove("playSounds");
    EXPECT_TRUE(settings.playSounds());
    EXPECT_FALSE(settings.preferOnDevice());
}

TEST_F(SettingsTest, AFileEditedByHandIsReadAsItStandsAndRawValuesMatchExactly)
{
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::whisper);
    QFile file(rawStore().fileName());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("[General]\nengine=apple\nhotKey=RightCommand\nlocaleIdentifier=ja-JP\n");
    file.close();
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::apple) << "the file was not read again";
    EXPECT_EQ(settings.hotKey(), HotKey::rightOption);
    EXPECT_EQ(settings.localeIdentifier(), "ja-JP") << "unknown languages are returned unchanged";
    for (const char* engine : {"Apple", "native"}) {
        rawStore().setValue("engine", engine);
        EXPECT_EQ(settings.engine(), TranscriptionEngineKind::whisper) << engine;
    }
}

// A file and folder nobody can write to (immutable, so root cannot either): the failure is logged and the
// file keeps what it held.
TEST_F(SettingsTest, AWriteThatFailsIsReportedAndLeavesTheFileAsItWas)
{
    settings.setEngine(TranscriptionEngineKind::whisper);
    const QString file = rawStore().fileName();
    const QString folder = QFileInfo(file).absolutePath();
    const auto immutable = [&](bool on) { return QProcess::execute("chattr", {on ? "+i" : "-i", folder, file}) == 0; };
    if (!immutable(true))
        VOXARIA_SKIP("chattr does not work on this file system");
    static QStringList settingsWarnings;
    settingsWarnings.clear();
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext& context, const QString& message) {
        if (type == QtWarningMsg && QLatin1String(context.category) == QLatin1String("voxaria.settings"))
            settingsWarnings << message;
    });
    settings.setEngine(TranscriptionEngineKind::apple);
    qInstallMessageHandler(nullptr);
    immutable(false);
    EXPECT_EQ(settingsWarnings.size(), 1);
    QFile stored(file);
    ASSERT_TRUE(stored.open(QIODevice::ReadOnly));
    EXPECT_TRUE(stored.readAll().contains("engine=whisper"));
}

TEST_F(SettingsTest, ThreadsReadingWhileOthersWriteSeeOnlyWrittenValues)
{
    const QStringList written{"en-US", "fr-FR"};
    settings.setLocaleIdentifier(written.first());
    std::atomic<int> strangeReads = 0;
    constexpr int writers = 2;
    std::atomic<int> writersLeft = writers;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 6; ++thread) {
        threads.emplace_back([&, thread] {
            if (thread < writers) {
                for (int round = 0; round < 50; ++round)
                    settings.setLocaleIdentifier(written[(round + thread) % 2]);
                --writersLeft;
            }
            while (writersLeft > 0) {
                if (!written.contains(settings.localeIdentifier()))
                    ++strangeReads;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(strangeReads, 0);
}

}
