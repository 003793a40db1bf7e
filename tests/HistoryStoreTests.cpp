#include "HistoryFiles.h"
#include "HistoryStore.h"
#include "TestSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <limits>

namespace {

using Entry = HistoryStore::Entry;

class HistoryStoreTest : public ::testing::Test {
protected:
    QString folder = HistoryFiles::freshFolder();
    QString path = folder + "/Voxaria/history.json";

    QStringList corruptCopies() const
    {
        return QDir(folder + "/Voxaria").entryList({"history.json.corrupt-*"}, QDir::Files);
    }
};

QStringList texts(const QList<Entry>& entries)
{
    QStringList result;
    for (const Entry& entry : entries)
        result.append(entry.text);
    return result;
}

// --- The file as other programs read it -------------------------------------------------------

TEST_F(HistoryStoreTest, WritesCompactJsonWithFixedKeyOrderUpperCaseIdsAndEscapedSlashes)
{
    HistoryFiles::write(path, R"([
        {"text": "Olá, mundo/teste \"citado\"\nsegunda linha\ttab \u0001 😀",
         "appName": "Editor / Código", "date": 785000000.123456, "extra": [1, 2],
         "id": "3f2504e0-4f89-41d3-9a0c-0305e82c3301"},
        {"id": "9B2C8C2E-7D0F-4B7A-8E4C-1F2A3B4C5D6E", "date": 0.1, "appName": "—", "text": ""}
    ])");
    HistoryStore store(path);
    ASSERT_EQ(store.entries().size(), 2);

    store.remove(QUuid::createUuid()); // matches nothing, but still rewrites the file
    const QByteArray expected = "[{\"id\":\"3F2504E0-4F89-41D3-9A0C-0305E82C3301\",\"date\":785000000.123456,"
                                "\"appName\":\"Editor \\/ Código\","
                                "\"text\":\"Olá, mundo\\/teste \\\"citado\\\"\\nsegunda linha\\ttab \\u0001 😀\"},"
                                "{\"id\":\"9B2C8C2E-7D0F-4B7A-8E4C-1F2A3B4C5D6E\",\"date\":0.1,\"appName\":\"—\",\"text\":\"\"}]";
    EXPECT_EQ(HistoryFiles::read(path), expected);
}

TEST_F(HistoryStoreTest, AnEmptyHistoryIsWrittenAsTwoBracketsAndAnnounced)
{
    HistoryFiles::write(path, HistoryFiles::json(HistoryFiles::numberedEntries(3)));
    HistoryStore store(path);
    QSignalSpy changes(&store, &HistoryStore::didChange);
    store.clear();
    EXPECT_TRUE(store.entries().isEmpty());
    EXPECT_EQ(HistoryFiles::read(path), "[]");
    EXPECT_EQ(changes.count(), 1);
}

TEST_F(HistoryStoreTest, DatesAndIdsSurviveSaveAndLoadBitForBit)
{
    QList<Entry> originals;
    QRandomGenerator random(20261122);
    const double awkward[] = {0.1 + 0.2, 1e-7, -978307200.5, 5e-324, 1.7976931348623157e308, 785000000.0, 0.0};
    for (double date : awkward)
        originals.append({QUuid::createUuid(), date, "App", "t"});
    for (int i = 0; i < 200; ++i)
        originals.append({QUuid::createUuid(), random.generateDouble() * 1.6e9 - 3e8, "App", "t"});
    HistoryFiles::write(path, HistoryFiles::json(originals));

    {
        HistoryStore writer(path);
        ASSERT_EQ(writer.entries(), originals);
        writer.remove(QUuid()); // rewrite everything in the store's own format
    }
    HistoryStore reader(path);
    ASSERT_EQ(reader.entries().size(), originals.size());
    for (qsizetype i = 0; i < originals.size(); ++i) {
        EXPECT_EQ(std::memcmp(&reader.entries()[i].date, &originals[i].date, sizeof(double)), 0)
            << "date " << i << " was " << originals[i].date << ", read back " << reader.entries()[i].date;
        EXPECT_EQ(reader.entries()[i].id, originals[i].id);
    }
}

TEST_F(HistoryStoreTest, AddStoresArgumentsAsGivenWithFreshIdsAndTheCurrentTime)
{
    HistoryStore store(path);
    QSignalSpy changes(&store, &HistoryStore::didChange);
    const double before = HistoryStore::now();
    store.add("  igual  ", "Terminal");
    store.add("  igual  ", "—");
    const double after = HistoryStore::now();

    ASSERT_EQ(store.entries().size(), 2);
    EXPECT_EQ(changes.count(), 2);
    EXPECT_EQ(store.entries()[0].text, "  igual  ");
    EXPECT_EQ(store.entries()[0].appName, "—");
    EXPECT_EQ(store.entries()[1].appName, "Terminal");
    EXPECT_NE(store.entries()[0].id, store.entries()[1].id);
    EXPECT_EQ(store.entries()[0].id.version(), QUuid::Random);
    EXPECT_GE(store.entries()[1].date, before);
    EXPECT_LE(store.entries()[0].date, after);
    EXPECT_LT(qAbs(store.entries()[0].dateTime().secsTo(QDateTime::currentDateTimeUtc())), 60)
        << "dates count from 2001-01-01 UTC";

    HistoryStore reloaded(path);
    EXPECT_EQ(reloaded.entries(), store.entries());
}

// --- Order and cap ------------------------------------------------------------------------------

TEST_F(HistoryStoreTest, TheTwoHundredAndFirstAddDropsTheOldest)
{
    HistoryFiles::write(path, HistoryFiles::json(HistoryFiles::numberedEntries(200)));
    HistoryStore store(path);
    ASSERT_EQ(store.entries().size(), 200);
    store.add("novo", "App");
    ASSERT_EQ(store.entries().size(), 200);
    EXPECT_EQ(store.entries().first().text, "novo");
    EXPECT_EQ(store.entries()[1].text, "ditado 199");
    EXPECT_EQ(store.entries().last().text, "ditado 1");
    EXPECT_EQ(HistoryStore(path).entries().size(), 200);
}

TEST_F(HistoryStoreTest, AnOversizedFileLoadsWholeAndIsCutAtTheNextAdd)
{
    const QList<Entry> old = HistoryFiles::numberedEntries(250);
    HistoryFiles::write(path, HistoryFiles::json(old));
    HistoryStore store(path);
    EXPECT_EQ(store.entries(), old);

    store.add("novo", "App");
    ASSERT_EQ(store.entries().size(), 200);
    EXPECT_EQ(store.entries().first().text, "novo");
    EXPECT_EQ(store.entries().mid(1), old.mid(0, 199));
}

TEST_F(HistoryStoreTest, RemoveDeletesOnlyThatIdKeepsOrderAndAlwaysSaves)
{
    const QList<Entry> old = HistoryFiles::numberedEntries(4);
    HistoryFiles::write(path, HistoryFiles::json(old));
    HistoryStore store(path);
    QSignalSpy changes(&store, &HistoryStore::didChange);

    store.remove(old[1].id);
    EXPECT_EQ(texts(store.entries()), QStringList({"ditado 3", "ditado 1", "ditado 0"}));
    EXPECT_EQ(changes.count(), 1);

    const QByteArray before = HistoryFiles::read(path);
    QFile::remove(path);
    store.remove(old[1].id);
    EXPECT_EQ(changes.count(), 2);
    EXPECT_EQ(HistoryFiles::read(path), before) << "a remove that matches nothing still rewrites the file";
}

// --- Failures -----------------------------------------------------------------------------------

TEST_F(HistoryStoreTest, AMissingFileGivesAnEmptyHistoryAndTheFirstSaveCreatesTheFolder)
{
    const QString deep = folder + "/nao/existe/ainda/history.json";
    HistoryStore store(deep);
    EXPECT_TRUE(store.entries().isEmpty());
    EXPECT_FALSE(QFileInfo::exists(folder + "/nao")) << "loading must not create anything";
    store.add("primeiro", "App");
    EXPECT_EQ(HistoryStore(deep).entries().size(), 1);
}

TEST_F(HistoryStoreTest, AnyBadElementEmptiesTheHistoryButTheFileIsKeptUntilTheNextSave)
{
    const QString valid = R"({"id":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","date":1,"appName":"a","text":"t"})";
    const QStringList badElements = {
        R"({"id":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","date":1,"appName":"a"})",
        R"({"id":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","date":"1","appName":"a","text":"t"})",
        R"({"id":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","date":1,"appName":null,"text":"t"})",
        R"({"id":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","date":1,"appName":"a","text":7})",
        R"({"id":"not-a-uuid","date":1,"appName":"a","text":"t"})",
        R"({"id":"{3F2504E0-4F89-41D3-9A0C-0305E82C3301}","date":1,"appName":"a","text":"t"})",
        R"({"id":"3F2504E04F8941D39A0C0305E82C3301","date":1,"appName":"a","text":"t"})",
        R"({"id":12,"date":1,"appName":"a","text":"t"})",
        R"("texto solto")",
        R"([])",
    };
    for (const QString& bad : badElements) {
        SCOPED_TRACE(bad.toStdString());
        const QString folderForCase = HistoryFiles::freshFolder();
        const QString file = folderForCase + "/history.json";
        const QByteArray bytes = ("[" + valid + "," + bad + "]").toUtf8();
        HistoryFiles::write(file, bytes);

        HistoryStore store(file);
        EXPECT_TRUE(store.entries().isEmpty());
        EXPECT_EQ(HistoryFiles::read(file), bytes) << "the original stays untouched until the next save";
        const QStringList copies = QDir(folderForCase).entryList({"history.json.corrupt-*"});
        ASSERT_EQ(copies.size(), 1);
        EXPECT_EQ(HistoryFiles::read(folderForCase + "/" + copies.first()), bytes);

        store.add("novo", "App");
        EXPECT_EQ(HistoryStore(file).entries().size(), 1);
    }
}

TEST_F(HistoryStoreTest, ValidButUnusualFilesLoad)
{
    const struct {
        const char* json;
        qsizetype count;
    } cases[] = {
        {"[]", 0},
        {" \n[ ]\n", 0},
        {R"([{"date":5e2,"text":"x","appName":"y","id":"3f2504e0-4f89-41d3-9a0c-0305e82c3301","other":{}}])", 1},
        {R"([{"id":"00000000-0000-0000-0000-000000000000","date":-1,"appName":"","text":"\ud83d\ude00 \u00e9"}])", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        HistoryFiles::write(path, c.json);
        EXPECT_EQ(HistoryStore(path).entries().size(), c.count);
    }
    EXPECT_TRUE(corruptCopies().isEmpty()) << "valid files are never copied aside";
}

TEST_F(HistoryStoreTest, AnUnwritableFolderKeepsTheChangeInMemoryAndStillAnnounces)
{
    // A plain file where the folder should be: the folder cannot be made, nor the file written.
    HistoryFiles::write(folder + "/Voxaria", "not a folder");
    HistoryStore store(path);
    QSignalSpy changes(&store, &HistoryStore::didChange);
    store.add("fica na memória", "App");
    EXPECT_EQ(store.entries().size(), 1);
    EXPECT_EQ(changes.count(), 1);
    EXPECT_FALSE(QFileInfo::exists(path));
}

// Hostile or damaged files must never crash the app; the history is then either whole or empty.
TEST_F(HistoryStoreTest, DamagedAndHostileFilesLoadWholeOrEmptyAndNeverCrash)
{
    const QList<Entry> original = HistoryFiles::numberedEntries(4);
    QByteArray good = HistoryFiles::json(original);
    good.replace("ditado 2", "ação/“aspas” 😀 \\n \\u00e9");

    QList<QByteArray> inputs;
    for (qsizetype length = 0; length < good.size(); ++length)
        inputs.append(good.left(length));
    QRandomGenerator random(7);
    for (int i = 0; i < 400; ++i) {
        QByteArray damaged = good;
        damaged[random.bounded(int(damaged.size()))] = char(random.bounded(256));
        inputs.append(damaged);
    }
    inputs.append(QByteArray(200000, '['));
    inputs.append(QByteArray(100000, '{'));
    inputs.append("[" + QByteArray("{\"a\":").repeated(50000) + "]");
    inputs.append(QByteArray(good).replace("ditado 1", "inv\xff\xfe\xc3lid"));
    inputs.append(QByteArray(good).replace("ditado 1", "\xed\xa0\x80 surrogate"));
    inputs.append(QByteArray(good).replace("ditado 1", "\\ud800 lone escape"));
    inputs.append(QByteArray(good).replace("ditado 1", QByteArray(8 << 20, 'x')));
    inputs.append("{\"id\":\"3F2504E0-4F89-41D3-9A0C-0305E82C3301\"}");
    inputs.append("null");
    inputs.append("\"[]\"");
    inputs.append(QByteArray("\0[]", 3));
    inputs.append("[]garbage");

    for (const QByteArray& input : inputs) {
        HistoryFiles::write(path, input);
        const qsizetype count = HistoryStore(path).entries().size();
        EXPECT_TRUE(count == 0 || count == original.size())
            << "loaded " << count << " entries from: " << input.left(120).toStdString();
    }

    for (const char* date : {"1e999", "-1e999", "-0", "123456789012345678901234567890", "1.", ".5", "0x10", "NaN"}) {
        HistoryFiles::write(path, QByteArray(R"([{"id":"3F2504E0-4F89-41D3-9A0C-0305E82C3301","date":)") + date
                                      + R"(,"appName":"a","text":"t"}])");
        HistoryStore store(path);
        EXPECT_LE(store.entries().size(), 1) << date;
        store.add("novo", "App"); // saving whatever was loaded must not crash either
    }
}

// --- Atomic writes ------------------------------------------------------------------------------

// A saver killed at random moments must always leave a file that loads whole.
TEST_F(HistoryStoreTest, KillingTheProcessDuringSavesNeverLeavesATornFile)
{
    QRandomGenerator random(42);
    qsizetype previousCount = 0;
    for (int round = 0; round < 40; ++round) {
        QProcess saver;
        saver.start(VOXARIA_HELPER_HistorySaver, {path});
        ASSERT_TRUE(saver.waitForStarted(5000)) << qPrintable(saver.errorString());
        ASSERT_TRUE(saver.waitForReadyRead(10000)) << "the saver never reported its first save";
        QThread::usleep(random.bounded(1000, 30000));
        ::kill(static_cast<pid_t>(saver.processId()), SIGKILL);
        ASSERT_TRUE(saver.waitForFinished(5000));

        SCOPED_TRACE(round);
        HistoryStore survivor(path);
        ASSERT_FALSE(survivor.entries().isEmpty()) << "the file left after the kill did not load";
        // The saver reports only after its first save completed, so every round keeps at least one more.
        EXPECT_GE(survivor.entries().size(), qMin(previousCount + 1, qsizetype(HistoryStore::maximumEntries)))
            << "a kill lost entries that were already saved";
        previousCount = survivor.entries().size();
    }
    EXPECT_TRUE(corruptCopies().isEmpty());
}

// --- The process's store ------------------------------------------------------------------------

TEST(HistoryStoreShared, LivesInTheDataFolderAndLoadsItsFileOnFirstUse)
{
    const QString location = HistoryStore::defaultFileLocation();
    EXPECT_TRUE(location.startsWith(TestSupport::isolatedRoot())) << location.toStdString();
    EXPECT_TRUE(location.endsWith("/Voxaria/history.json")) << location.toStdString();

    HistoryFiles::write(location, HistoryFiles::json(HistoryFiles::numberedEntries(3)));
    HistoryStore& shared = HistoryStore::shared();
    EXPECT_EQ(&shared, &HistoryStore::shared());
    EXPECT_EQ(texts(shared.entries()), QStringList({"ditado 2", "ditado 1", "ditado 0"}));
}

}
