#include "History/HistoryStore.h"
#include "HistoryFiles.h"
#include "TestSupport.h"

#include <QDir>
#include <QProcess>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>

#include <sys/resource.h>

namespace {

using Entry = HistoryStore::Entry;

// `count` entries, newest first, one minute apart, with texts "ditado <n>" (n = count - 1 first).
QList<Entry> numberedEntries(int count)
{
    QList<Entry> entries;
    for (int n = count - 1; n >= 0; --n)
        entries.append({QUuid::createUuid(), 785000000.25 - 60.0 * (count - 1 - n), "Editor", QString("ditado %1").arg(n)});
    return entries;
}

QStringList historyLog;

class HistoryStoreTest : public ::testing::Test {
protected:
    QTemporaryDir folder;
    QString path = folder.filePath("Voxaria/history.json");
};

// A save that fails (here the disk fills up part-way) says why in the log, keeps the change in
// memory and announces it, and never puts a torn file in place of the last good one.
TEST_F(HistoryStoreTest, AnOversizedFileLoadsWholeAddKeepsTheNewest200AndAFailedSaveLosesNothing)
{
    const QList<Entry> old = numberedEntries(250);
    ASSERT_TRUE(TestSupport::writeFile(path, HistoryFiles::json(old)));
    HistoryStore store(path);
    EXPECT_EQ(store.entries(), old);
    store.add("  igual  ", "Terminal");
    store.add("  igual  ", "—");
    const QList<Entry> saved = HistoryStore(path).entries();
    ASSERT_EQ(saved.size(), HistoryStore::maximumEntries);
    EXPECT_EQ(saved.mid(2), old.mid(0, 198));
    EXPECT_EQ(saved[0].appName, "—");
    EXPECT_NE(saved[0].id, saved[1].id);
    EXPECT_LT(qAbs(saved[0].dateTime().secsTo(QDateTime::currentDateTimeUtc())), 60) << "dates count from 2001-01-01 UTC";

    QSignalSpy changes(&store, &HistoryStore::didChange);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext& context, const QString& message) {
        if (qstrcmp(context.category, "voxaria.history") == 0)
            historyLog.append(message);
    });
    rlimit normal{};
    getrlimit(RLIMIT_FSIZE, &normal);
    const rlimit full{100, normal.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &full);
    store.add("não cabe no disco", "App");
    setrlimit(RLIMIT_FSIZE, &normal);
    qInstallMessageHandler(nullptr);
    EXPECT_TRUE(historyLog.join('\n').contains("File too large")) << historyLog.join('\n').toStdString();
    EXPECT_EQ(HistoryStore(path).entries(), saved) << "the last good file stays in place";
    EXPECT_EQ(store.entries().value(0).text, "não cabe no disco");
    EXPECT_EQ(changes.count(), 1);
}

// Damaged or hostile files never crash the app; the history is then either whole or empty, also
// when a single element is bad among good ones, and such a file is kept aside.
TEST_F(HistoryStoreTest, DamagedAndHostileFilesLoadWholeOrEmptyAndAreCopiedAsideOnce)
{
    const QList<Entry> four = numberedEntries(4);
    const QByteArray good = HistoryFiles::json(four).replace("ditado 2", "ação/“aspas” 😀 \\n \\u00e9");
    const QByteArray id = four[0].id.toByteArray(QUuid::WithoutBraces);
    const QByteArray badElement = QByteArray(good).replace("\"text\": \"ditado 3\"", "\"txt\": \"x\"");
    ASSERT_TRUE(TestSupport::writeFile(path, badElement));
    for (int launch = 0; launch < 2; ++launch)
        EXPECT_TRUE(HistoryStore(path).entries().isEmpty());
    EXPECT_EQ(HistoryFiles::read(path), badElement) << "untouched until the next save";
    const QStringList copies = QDir(folder.filePath("Voxaria")).entryList({"history.json.corrupt-*"});
    ASSERT_EQ(copies.size(), 1) << "one copy, however many launches meet the file";
    EXPECT_EQ(HistoryFiles::read(folder.filePath("Voxaria/" + copies.first())), badElement);

    QList<QByteArray> inputs;
    for (qsizetype length = 0; length < good.size(); length += 2)
        inputs.append(good.left(length));
    QRandomGenerator random(7);
    for (int i = 0; i < 250; ++i)
        inputs.append(QByteArray(good).replace(random.bounded(int(good.size())), 1, QByteArray(1, char(random.bounded(256)))));
    for (const QByteArray& text :
        {QByteArray("inv\xff\xfe\xc3lid"), QByteArray("\xed\xa0\x80"), QByteArray("\\ud800"), QByteArray(8 << 20, 'x')})
        inputs.append(QByteArray(good).replace("ditado 1", text));
    for (const char* date : {"1e999", "-0", "123456789012345678901234567890", "NaN", "\"1\""})
        inputs.append(QByteArray(good).replace("785000000.25", date));
    inputs << QByteArray(good).replace("\"ditado 1\"", "1") << QByteArray(good).replace(id, "{" + id + "}")
           << QByteArray(good).replace("[", "[[],") << QByteArray(200000, '[') << "[" + QByteArray("{\"a\":").repeated(50000) << "null"
           << QByteArray("\0[]", 3) << "[]x";

    for (const QByteArray& input : inputs) {
        ASSERT_TRUE(TestSupport::writeFile(path, input));
        HistoryStore store(path);
        EXPECT_TRUE(store.entries().isEmpty() || store.entries().size() == 4) << input.left(100).toStdString();
        store.clear(); // saving whatever was loaded must not crash either
    }
}

// A saver killed at random moments must always leave a file that loads whole. Its first save also
// creates the missing Voxaria folder.
TEST_F(HistoryStoreTest, KillingTheProcessDuringSavesNeverLeavesATornFile)
{
    QRandomGenerator random(42);
    qsizetype saved = 0;
    for (int round = 0; round < 40; ++round) {
        QProcess saver;
        saver.start(VOXARIA_HELPER_HistorySaver, {path});
        ASSERT_TRUE(saver.waitForReadyRead(10000)) << "the saver never reported a save: " << qPrintable(saver.errorString());
        QThread::usleep(random.bounded(1000, 30000));
        ::kill(static_cast<pid_t>(saver.processId()), SIGKILL);
        ASSERT_TRUE(saver.waitForFinished(5000));

        // The saver reports only after a completed save, so each round keeps at least one more entry.
        const qsizetype survivors = HistoryStore(path).entries().size();
        ASSERT_GE(survivors, qMin(saved + 1, qsizetype(HistoryStore::maximumEntries))) << "round " << round;
        saved = survivors;
    }
    EXPECT_TRUE(QDir(folder.filePath("Voxaria")).entryList({"history.json.corrupt-*"}).isEmpty());
}

}
