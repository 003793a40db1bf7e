#include "App/HotKey.h"
#include "App/LanguageOption.h"
#include "App/Settings.h"
#include "App/TranscriptionEngineKind.h"

#include <QSettings>

#include <gtest/gtest.h>

namespace {

// The raw store behind Settings, as another writer (or an older version) would see it.
QSettings rawStore()
{
    return QSettings(QSettings::NativeFormat, QSettings::UserScope, Settings::applicationId());
}

class SettingsTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        QSettings store = rawStore();
        store.clear();
        store.sync();
    }
};

TEST_F(SettingsTest, FreshInstallationReadsTheDefaults)
{
    Settings& settings = Settings::shared();
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::whisper);
    EXPECT_EQ(settings.whisperModelFileName(), "ggml-large-v3-turbo-q5_0.bin");
    EXPECT_EQ(settings.hotKey(), HotKey::rightOption);
    EXPECT_EQ(settings.localeIdentifier(), "pt-BR");
    EXPECT_TRUE(settings.preferOnDevice());
    EXPECT_TRUE(settings.playSounds());
}

TEST_F(SettingsTest, WritesAreReadBackAtOnceAndStoredAsRawValues)
{
    Settings& settings = Settings::shared();
    settings.setEngine(TranscriptionEngineKind::apple);
    settings.setHotKey(HotKey::fn);
    settings.setLocaleIdentifier("es-ES");
    settings.setWhisperModelFileName("ggml-small-q5_1.bin");
    EXPECT_EQ(settings.engine(), TranscriptionEngineKind::apple);
    EXPECT_EQ(settings.hotKey(), HotKey::fn);
    EXPECT_EQ(settings.localeIdentifier(), "es-ES");
    EXPECT_EQ(settings.whisperModelFileName(), "ggml-small-q5_1.bin");

    QSettings store = rawStore();
    store.sync();
    EXPECT_EQ(store.value("engine").toString(), "apple");
    EXPECT_EQ(store.value("hotKey").toString(), "fn");
}

TEST_F(SettingsTest, BooleansAreTrueOnlyWhenAbsent)
{
    Settings& settings = Settings::shared();
    settings.setPlaySounds(false);
    settings.setPreferOnDevice(false);
    EXPECT_FALSE(settings.playSounds());
    EXPECT_FALSE(settings.preferOnDevice());

    QSettings store = rawStore();
    store.remove("playSounds");
    store.sync();
    EXPECT_TRUE(settings.playSounds());
    EXPECT_FALSE(settings.preferOnDevice());
}

TEST_F(SettingsTest, ChangesFromAnotherWriterAreSeenAtTheNextRead)
{
    Settings& settings = Settings::shared();
    EXPECT_EQ(settings.hotKey(), HotKey::rightOption);
    QSettings store = rawStore();
    store.setValue("hotKey", "rightCommand");
    store.sync();
    EXPECT_EQ(settings.hotKey(), HotKey::rightCommand);
}

TEST_F(SettingsTest, EnumerationsMatchRawValuesExactly)
{
    Settings& settings = Settings::shared();
    QSettings store = rawStore();
    for (const char* stored : {"Apple", "APPLE", "native", ""}) {
        store.setValue("engine", stored);
        store.sync();
        EXPECT_EQ(settings.engine(), TranscriptionEngineKind::whisper) << stored;
    }
    for (const char* stored : {"RightOption", "leftOption", "Fn", "rightcommand"}) {
        store.setValue("hotKey", stored);
        store.sync();
        EXPECT_EQ(settings.hotKey(), HotKey::rightOption) << stored;
    }
}

TEST_F(SettingsTest, UnknownLanguagesAndModelsAreReturnedUnchanged)
{
    QSettings store = rawStore();
    store.setValue("localeIdentifier", "ja-JP");
    store.setValue("whisperModelFileName", "no-such-model.bin");
    store.sync();
    EXPECT_EQ(Settings::shared().localeIdentifier(), "ja-JP");
    EXPECT_EQ(Settings::shared().whisperModelFileName(), "no-such-model.bin");
}

TEST(SettingsEnumerations, KeysLanguagesAndEnginesAreThoseTheMenuLists)
{
    ASSERT_EQ(HotKey::allCases().size(), 3);
    EXPECT_EQ(HotKey(HotKey::rightOption).keyCode(), 61);
    EXPECT_EQ(HotKey(HotKey::rightOption).modifierFlag(), 0x80000u);
    EXPECT_EQ(HotKey(HotKey::rightCommand).keyCode(), 54);
    EXPECT_EQ(HotKey(HotKey::rightCommand).modifierFlag(), 0x100000u);
    EXPECT_EQ(HotKey(HotKey::fn).keyCode(), 63);
    EXPECT_EQ(HotKey(HotKey::fn).modifierFlag(), 0x800000u);
    EXPECT_EQ(HotKey(HotKey::rightOption).label(), "Alt direito (AltGr)");
    EXPECT_EQ(TranscriptionEngineKind(TranscriptionEngineKind::apple).label(), "PocketSphinx (nativo, tempo real)");

    QStringList ids;
    for (const LanguageOption& option : LanguageOption::all())
        ids << option.id;
    EXPECT_EQ(ids, QStringList({"pt-BR", "en-US", "es-ES", "fr-FR", "de-DE", "it-IT"}));
    EXPECT_EQ(LanguageOption::all().first().label, "Português (Brasil)");
}

}
