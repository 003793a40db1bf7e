#include "UpdaterManager.h"

#include "AppcastRelease.h"
#include "Shared/Logging.h"

#include <QNetworkReply>
#include <QNetworkRequest>

#include <utility>

#ifndef VOXARIA_UPDATE_FEED_URL
#define VOXARIA_UPDATE_FEED_URL ""
#endif
#ifndef VOXARIA_DAILY_UPDATE_CHECK
#define VOXARIA_DAILY_UPDATE_CHECK 0
#endif

namespace {

const QString kTitle = QStringLiteral("Atualizações do Voxaria");

// An appcast is a few kilobytes; anything far larger is not one, and is not kept in memory.
constexpr qint64 kMaxFeedBytes = qint64{4} * 1024 * 1024;
constexpr auto kTooLarge = "voxariaFeedTooLarge";
// A server that accepts the connection and then says nothing must not keep the check open forever.
constexpr int kTransferTimeoutMs = 30000;

QString networkFailure(QNetworkReply* reply)
{
    const int httpStatus = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QString host = reply->url().host();
    if (httpStatus >= 300)
        return QStringLiteral("o servidor %1 respondeu HTTP %2").arg(host).arg(httpStatus);
    switch (reply->error()) {
    case QNetworkReply::HostNotFoundError: return QStringLiteral("o servidor %1 não foi encontrado").arg(host);
    case QNetworkReply::ConnectionRefusedError: return QStringLiteral("o servidor %1 recusou a conexão").arg(host);
    case QNetworkReply::TimeoutError:
    case QNetworkReply::OperationCanceledError: return QStringLiteral("o servidor %1 não respondeu a tempo").arg(host);
    default: return QStringLiteral("a conexão com %1 falhou (%2)").arg(host, reply->errorString());
    }
}

// The newest release the feed offers, or why the check failed.
std::variant<AppcastRelease, QString> outcomeOf(QNetworkReply* reply)
{
    if (reply->property(kTooLarge).toBool())
        return QStringLiteral("o feed de atualizações é grande demais");
    if (reply->error() != QNetworkReply::NoError)
        return networkFailure(reply);
    return AppcastRelease::parse(reply->readAll());
}

}

UpdaterManager::Channel UpdaterManager::Channel::fromBuild()
{
    Channel channel;
    channel.feedURL = QUrl(QStringLiteral(VOXARIA_UPDATE_FEED_URL));
    if (VOXARIA_DAILY_UPDATE_CHECK && !channel.feedURL.isEmpty()) {
        // A minute after start-up: the session's network is usually up by then, and start-up is not slowed.
        channel.firstAutomaticCheck = std::chrono::minutes(1);
        channel.automaticCheckInterval = std::chrono::hours(24);
    }
    return channel;
}

UpdaterManager::UpdaterManager(Channel channel, std::shared_ptr<Alerts> alerts, std::shared_ptr<UrlOpener> urlOpener, QObject* parent)
    : QObject(parent)
    , m_channel(std::move(channel))
    , m_alerts(std::move(alerts))
    , m_urlOpener(std::move(urlOpener))
{
    if (m_channel.feedURL.isEmpty() || m_channel.automaticCheckInterval.count() <= 0)
        return;
    m_automaticCheck.setTimerType(Qt::VeryCoarseTimer);
    m_automaticCheck.setInterval(m_channel.automaticCheckInterval);
    connect(&m_automaticCheck, &QTimer::timeout, this, &UpdaterManager::checkInBackground);
    QTimer::singleShot(m_channel.firstAutomaticCheck, this, [this] {
        checkInBackground();
        m_automaticCheck.start();
    });
}

QString UpdaterManager::version()
{
    const QString version = QStringLiteral(VOXARIA_VERSION);
    return version.isEmpty() ? QStringLiteral("dev") : version;
}

void UpdaterManager::checkForUpdates()
{
    m_userAsked = true;
    if (m_channel.feedURL.isEmpty()) {
        m_userAsked = false;
        say(QStringLiteral("Esta cópia do Voxaria não tem canal de atualização; atualize pelo gerenciador de pacotes."));
        emit checkEnded();
        return;
    }
    fetch();
}

void UpdaterManager::checkInBackground()
{
    if (!m_channel.feedURL.isEmpty())
        fetch();
}

void UpdaterManager::fetch()
{
    // A check already on its way answers this request too (and speaks, if the user asked meanwhile).
    if (m_reply)
        return;
    QNetworkRequest request(m_channel.feedURL);
    request.setTransferTimeout(kTransferTimeoutMs);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Voxaria/") + m_channel.runningVersion);
    QNetworkReply* reply = m_network.get(request);
    m_reply = reply;
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
        if (received > kMaxFeedBytes) {
            reply->setProperty(kTooLarge, true);
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { handleReply(reply); });
}

void UpdaterManager::handleReply(QNetworkReply* reply)
{
    reply->deleteLater();
    m_reply = nullptr;
    const bool userAsked = std::exchange(m_userAsked, false);

    const std::variant<AppcastRelease, QString> outcome = outcomeOf(reply);

    if (const auto* reason = std::get_if<QString>(&outcome)) {
        qCWarning(lcApp) << "update check failed:" << *reason;
        if (userAsked)
            say(QStringLiteral("Não foi possível verificar atualizações: ") + *reason);
    } else if (const auto& release = std::get<AppcastRelease>(outcome); compareVersions(release.version, m_channel.runningVersion) > 0) {
        qCInfo(lcApp) << "update available:" << release.version;
        const Alerts::Alert alert{kTitle, QStringLiteral("Nova versão disponível: v") + release.version + QLatin1Char('.'),
            {{QStringLiteral("Abrir página de download")}, {QStringLiteral("Agora não"), Alerts::Button::Role::cancel}}};
        if (m_alerts->runModal(alert) == 0)
            m_urlOpener->open(release.downloadPage);
    } else {
        qCInfo(lcApp) << "up to date:" << m_channel.runningVersion << "feed has" << release.version;
        if (userAsked)
            say(QStringLiteral("Você está usando a versão mais recente (v") + m_channel.runningVersion + QStringLiteral(")."));
    }
    emit checkEnded();
}

void UpdaterManager::say(const QString& text)
{
    m_alerts->runModal({kTitle, text, {}});
}
