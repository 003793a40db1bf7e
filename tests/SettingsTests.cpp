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

// The other defaults are the marks of a fresh menu (StatusMenuTests).
TEST_F(SettingsTest, FreshInstallationReadsTheDefaults)
{
    EXPECT_EQ(AppPaths::settingsFile(), QSettings(QSettings::NativeFormat, QSettings::UserScope, AppPaths::applicationId()).fileName())
        << "the user's preferences stay in the file earlier versions wrote";
    EXPECT_EQ(settings.whisperModelFileName(), "ggml-large-v3-turbo-q5_0.bin");
}

// What the tray menu writes is met in the file by EndToEndTests.
TEST_F(SettingsTest, ABooleanWrittenFalseStaysSoAndIsTrueOnceAbsent)
{
    settings.setPlaySounds(false);
    settings.setPreferOnDevice(false);
    rawStore().remove("playSounds");
    EXPECT_TRUE(settings.playSounds());
    EXPECT_FALSE(settings.preferOnDevice());
}

// Words stored other than as written fall back to the defaults: the marks of the menu (StatusMenuTests).
TEST_F(SettingsTest, AFileEditedByHandIsReadAsItStands)
{
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::whisper);
    ASSERT_TRUE(TestSupport::writeFile(rawStore().fileName(), "[General]\nengine=apple\nlocaleIdentifier=ja-JP\n"));
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::apple) << "the file was not read again";
    EXPECT_EQ(settings.localeIdentifier(), "ja-JP") << "unknown languages are returned unchanged";
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
