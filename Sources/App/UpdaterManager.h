#pragma once

#include "Platform/Alerts.h"
#include "Platform/UrlOpener.h"

#include <QNetworkAccessManager>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>
#include <QUrl>

#include <chrono>
#include <memory>

class QNetworkReply;

// Checks the update feed: on request (always answers), and once a day by itself (speaks only when
// a newer version exists). Fetching runs on Qt's network thread; answers come on the main thread.
class UpdaterManager : public QObject {
    Q_OBJECT
public:
    // Where and how often this copy looks for updates.
    struct Channel {
        QUrl feedURL; // an appcast; empty: this copy is updated by the package manager
        std::chrono::milliseconds firstAutomaticCheck{0};
        std::chrono::milliseconds automaticCheckInterval{0}; // zero: never by itself
        QString runningVersion = UpdaterManager::version();

        // What the build configured (VOXARIA_UPDATE_FEED_URL, VOXARIA_DAILY_UPDATE_CHECK).
        static Channel fromBuild();
    };

    // Creating it starts the daily check where the channel has a feed.
    UpdaterManager(Channel channel, std::shared_ptr<Alerts> alerts, std::shared_ptr<UrlOpener> urlOpener, QObject* parent = nullptr);
    // The running version ("0.2.0"), or "dev" when the build has none.
    static QString version();

    // "Verificar atualizações…": checks now and shows the answer.
    void checkForUpdates();
    // The daily check: shows something only when a newer version exists.
    void checkInBackground();

signals:
    // A check ended, whatever it found and whether or not it said anything.
    void checkEnded();

private:
    void fetch();
    void handleReply(QNetworkReply* reply);
    void say(const QString& text);

    Channel m_channel;
    std::shared_ptr<Alerts> m_alerts;
    std::shared_ptr<UrlOpener> m_urlOpener;
    QNetworkAccessManager m_network;
    QPointer<QNetworkReply> m_reply;
    QTimer m_automaticCheck;
    bool m_userAsked = false;
};
