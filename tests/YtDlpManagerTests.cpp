#include "LocalHttpServer.h"
#include "Media/YtDlpManager.h"
#include "Shared/AppPaths.h"
#include "Shared/Error.h"
#include "TestSupport.h"

#include <QDir>

#include <gtest/gtest.h>

#include <filesystem>

using namespace std::chrono_literals;
using TestSupport::waitUntil;
using Route = LocalHttpServer::Route;

namespace {

const QByteArray kProgram = QByteArray("#!/bin/sh\n").leftJustified(3 << 20, '#'); // several reads long

const auto installedContents = [] {
    QFile file(YtDlpManager::installedPath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(none)");
};

// Installations from a server of the test's own; each one says what its callbacks heard.
class YtDlpInstallTest : public ::testing::Test {
protected:
    LocalHttpServer server;
    QList<double> progress;
    QStringList completions; // the installed path, or the error as the user reads it

    QPointer<YtDlpInstallation> start(const Route& route, QObject* context = nullptr)
    {
        progress.clear();
        completions.clear();
        server.setRoute("yt-dlp_linux", route);
        return YtDlpManager::install([this](double fraction) { progress.append(fraction); },
            [this](const QString& path, const Error* error) { completions.append(error ? error->description() : path); }, context,
            server.baseUrl().resolved(QUrl("yt-dlp_linux")));
    }
    static QStringList leftovers() { return QDir(AppPaths::temporaryFolder()).entryList({"yt-dlp-*"}); }
};

// An installation brings an executable copy that wins over the system's (one that lost its
// executable bit does not count); a failure says why and keeps the earlier copy. Neither leaves a
// file behind.
TEST_F(YtDlpInstallTest, InstallsAnExecutableCopyOrKeepsTheEarlierOneAndACancelLeavesNothing)
{
    const QString shm = "/dev/shm/voxaria-ytdlp-test", cut = "a conexão caiu antes do fim do download. Tente de novo.";
    const struct {
        Route route;
        QString reason = {}; // "": installed
        bool reportsProgress = true;
        QString temporaryFolder = {}; // another file system than the data folder's
    } cases[] = {
        {{.body = kProgram}},
        {{.redirectTo = "cdn/yt-dlp_linux"}}, // the release address redirects to the file host
        {{.body = kProgram, .sendLength = false}, {}, false},
        {{.body = kProgram}, {}, true, shm},
        {{.body = "<html><body>Erro</body></html>", .status = 404}, "o servidor respondeu com o status HTTP 404."},
        {{.body = kProgram, .cutAt = 1 << 20}, cut},
        {{.body = kProgram, .announcedLength = 4 << 20}, cut},
        {{.body = ""}, "o servidor não enviou nenhum dado."},
    };
    server.setRoute("cdn/yt-dlp_linux", Route{.body = kProgram});
    ASSERT_TRUE(TestSupport::writeFile(YtDlpManager::installedPath(), "not executable"));
    EXPECT_NE(YtDlpManager::binaryURL(), YtDlpManager::installedPath());
    const QByteArray tmpdir = qgetenv("TMPDIR");
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        ASSERT_TRUE(c.reason.isEmpty() || TestSupport::writeFile(YtDlpManager::installedPath(), "earlier copy", true));
        if (!c.temporaryFolder.isEmpty() && QDir().mkpath(c.temporaryFolder))
            qputenv("TMPDIR", c.temporaryFolder.toUtf8());
        const QPointer<YtDlpInstallation> installation = start(c.route);
        EXPECT_TRUE(waitUntil([&] { return !installation; }, 30s));
        qputenv("TMPDIR", tmpdir);
        EXPECT_EQ(completions, QStringList{c.reason.isEmpty() ? YtDlpManager::installedPath() : c.reason});
        EXPECT_EQ(installedContents(), c.reason.isEmpty() ? kProgram : "earlier copy");
        EXPECT_EQ(YtDlpManager::binaryURL(), YtDlpManager::installedPath());
        EXPECT_EQ(leftovers(), QStringList{});
        EXPECT_EQ(QDir(AppPaths::dataFolder() + "/bin").entryList(QDir::Files | QDir::Hidden), QStringList{"yt-dlp"});
        if (c.reason.isEmpty()) {
            EXPECT_EQ(std::filesystem::status(YtDlpManager::installedPath().toStdString()).permissions(), std::filesystem::perms(0755));
            EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
            EXPECT_EQ(progress.isEmpty() ? -1 : progress.last(), c.reportsProgress ? 1.0 : -1);
        }
    }
    QDir(shm).removeRecursively();

    // Cancelling, or the caller going away, stops the download silently and leaves nothing behind.
    for (const bool callerGoesAway : {false, true}) {
        QFile::remove(YtDlpManager::installedPath());
        QPointer<QObject> caller = new QObject;
        const QPointer<YtDlpInstallation> installation = start(Route{.body = kProgram, .holdAt = 1 << 20}, caller);
        EXPECT_TRUE(waitUntil([&] { return progress.size() > 0 && leftovers().size() == 1; }));
        if (callerGoesAway)
            delete caller;
        else
            QMetaObject::invokeMethod(installation, &YtDlpInstallation::cancel, Qt::QueuedConnection); // as a button does
        EXPECT_TRUE(waitUntil([&] { return !installation; }));
        server.release();
        TestSupport::spin(500ms);
        EXPECT_EQ(completions, QStringList{});
        EXPECT_EQ(installedContents(), "(none)");
        EXPECT_EQ(leftovers(), QStringList{});
        delete caller;
    }
}

}
