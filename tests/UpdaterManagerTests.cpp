#include "App/UpdaterManager.h"
#include "LocalHttpServer.h"
#include "Platform/Fakes/FakeAlerts.h"
#include "Platform/Fakes/FakeUrlOpener.h"
#include "TestSupport.h"

#include <QSignalSpy>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using Route = LocalHttpServer::Route;

namespace {

const QString kFailed = "Não foi possível verificar atualizações: ";

const auto appcast = [](const QByteArray& items) {
    return "<?xml version=\"1.0\"?>\n<rss version=\"2.0\" xmlns:sparkle=\"http://www.andymatuschak.org/xml-namespaces/sparkle\">"
           "<channel><title>Voxaria</title>"
        + items + "</channel></rss>\n";
};

// Version 0.9.9 reading the test's feed (or `feed`); an automatic check starts 10 ms after creation.
struct Updater {
    LocalHttpServer server;
    FakeAlerts* alerts = new FakeAlerts;
    FakeUrlOpener* opener = new FakeUrlOpener;
    UpdaterManager manager;
    QSignalSpy ended{&manager, &UpdaterManager::checkEnded};

    explicit Updater(std::optional<QUrl> feed = {}, std::chrono::milliseconds automaticInterval = 0ms)
        : manager({feed.value_or(server.baseUrl().resolved(QUrl("appcast.xml"))), 10ms, automaticInterval, "0.9.9"},
            std::unique_ptr<Alerts>(alerts), std::unique_ptr<UrlOpener>(opener))
    {
    }
    // What the user saw once the check ended ("" when nothing).
    QString said()
    {
        EXPECT_TRUE(ended.count() == 1 || ended.wait(20000));
        EXPECT_EQ(alerts->shown.value(0, {"Atualizações do Voxaria"}).messageText, "Atualizações do Voxaria");
        return alerts->shown.isEmpty() ? "" : alerts->shown.last().informativeText;
    }
};

}

TEST(UpdaterManager, AnswersWhatTheFeedSaysAndOffersOnlyANewerVersion)
{
    const struct {
        Route route;
        QString answer; // exact, or the failure's prefix and a word of its reason
        std::optional<QUrl> feed = {};
    } cases[] = {
        {{appcast("<item><sparkle:shortVersionString>0.9.9</sparkle:shortVersionString></item>")},
            "Você está usando a versão mais recente (v0.9.9)."},
        {{appcast("<item><enclosure url=\"x\" sparkle:version=\"0.9.1\"/></item>")}, "Você está usando a versão mais recente (v0.9.9)."},
        {{"<!DOCTYPE html><html><body>Bem-vindo</body></html>"}, kFailed + "RSS"},
        {{""}, kFailed + "vazio"},
        {{appcast("<item><sparkle:version>1.0</sparkle:version></item>").left(90), 200, false}, kFailed + "malformado"},
        {{appcast("<item><title>Voxaria</title></item>")}, kFailed + "nenhuma versão"},
        {{"", 404}, kFailed + "HTTP 404"},
        {{}, kFailed + "o servidor 127.0.0.1 recusou a conexão", QUrl("http://127.0.0.1:1/appcast.xml")},
        {{}, "Esta cópia do Voxaria não tem canal de atualização; atualize pelo gerenciador de pacotes.", QUrl()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.answer.toStdString());
        Updater updater(c.feed);
        updater.server.setRoute("appcast.xml", c.route);
        updater.manager.checkForUpdates();
        const QString said = updater.said();
        EXPECT_TRUE(
            said == c.answer || (c.answer.startsWith(kFailed) && said.startsWith(kFailed) && said.contains(c.answer.mid(kFailed.size()))))
            << said.toStdString();
    }

    // 0.10.0 is newer than 0.9.9; the newest item's page opens if asked; the main thread never waits.
    for (const QString answer : {"Abrir página de download", "Agora não"}) {
        Updater updater;
        updater.server.setRoute("appcast.xml",
            {appcast("<item><link>https://voxaria.app/0.9.10</link><sparkle:version>0.9.10</sparkle:version></item>"
                     "<item><link>https://voxaria.app/0.10.0</link><enclosure url=\"https://voxaria.app/v.tar\" "
                     "sparkle:shortVersionString=\"0.10.0\"/></item>"),
                200, true, -1, -1, 0});
        updater.alerts->answers = {answer};
        updater.manager.checkForUpdates();
        TestSupport::spin(300ms);
        EXPECT_EQ(updater.ended.count(), 0) << "the answer is held back";
        updater.server.release();
        EXPECT_EQ(updater.said(), "Nova versão disponível: v0.10.0.");
        EXPECT_EQ(updater.opener->opened, answer == "Agora não" ? QList<QUrl>{} : QList<QUrl>{QUrl("https://voxaria.app/0.10.0")});
    }
    // The daily check, started by the updater's own timer, speaks only of a newer version.
    for (const QByteArray feedVersion : {"0.9.9", "", "1.0", "v1.0"}) {
        Updater updater({}, 24h);
        updater.server.setRoute("appcast.xml", {appcast("<item><sparkle:version>" + feedVersion + "</sparkle:version></item>")});
        EXPECT_EQ(updater.said(), feedVersion.endsWith("1.0") ? "Nova versão disponível: v1.0." : "") << feedVersion.constData();
    }
}
