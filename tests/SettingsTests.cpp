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

QStringList settingsWarnings;

// Settings on a file of the test's own, which the test also writes as another writer (or an older
// version, or the user by hand) would.
class SettingsTest : public ::testing::Test {
protected:
    QTemporaryDir scratch;
    QString file = scratch.filePath("settings.conf");
    Settings settings{file};
};

// The other defaults are the marks of a fresh menu (StatusMenuTests); what the menu writes is met in
// the file by EndToEndTests.
TEST_F(SettingsTest, TheDefaultsStandUntilTheFileSaysOtherwiseWhichIsReadAsItStandsAndKeptWhenAWriteFails)
{
    EXPECT_EQ(AppPaths::settingsFile(), QSettings(QSettings::NativeFormat, QSettings::UserScope, AppPaths::applicationId()).fileName())
        << "the user's preferences stay in the file earlier versions wrote";
    EXPECT_EQ(settings.whisperModelFileName(), "ggml-large-v3-turbo-q5_0.bin");
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::whisper);
    settings.setPlaySounds(false);
    settings.setPreferOnDevice(false);
    QSettings(file, QSettings::NativeFormat).remove("playSounds");
    EXPECT_TRUE(settings.playSounds());
    EXPECT_FALSE(settings.preferOnDevice());
    ASSERT_TRUE(TestSupport::writeFile(file, "[General]\nengine=apple\nlocaleIdentifier=ja-JP\n"));
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::apple) << "the file was not read again";
    EXPECT_EQ(settings.localeIdentifier(), "ja-JP") << "unknown languages are returned unchanged";

    // A file and folder nobody can write to (immutable, so root cannot either): the failure is
    // logged and the file keeps what it held.
    const auto immutable = [&](bool on) { return QProcess::execute("chattr", {on ? "+i" : "-i", QFileInfo(file).path(), file}) == 0; };
    if (!immutable(true))
        VOXARIA_SKIP("chattr does not work on this file system");
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext& context, const QString& message) {
        if (type == QtWarningMsg && QLatin1String(context.category) == QLatin1String("voxaria.settings"))
            settingsWarnings << message;
    });
    settings.setEngine(TranscriptionEngineKind::whisper);
    qInstallMessageHandler(nullptr);
    immutable(false);
    EXPECT_EQ(settingsWarnings.size(), 1);
    QFile stored(file);
    EXPECT_TRUE(stored.open(QIODevice::ReadOnly) && stored.readAll().contains("engine=apple"));
}

TEST_F(SettingsTest, ThreadsReadingWhileOthersWriteSeeOnlyWrittenValues)
{
    const QStringList written{"en-US", "fr-FR"};
    settings.setLocaleIdentifier(written.first());
    std::atomic<int> strangeReads = 0, writersLeft = 2;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 6; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; thread < 2 && round < 50; ++round)
                settings.setLocaleIdentifier(written[(round + thread) % 2]);
            if (thread < 2)
                --writersLeft;
            while (writersLeft > 0)
                strangeReads += written.contains(settings.localeIdentifier()) ? 0 : 1;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(strangeReads, 0);
}

}
