#include "PortalRequest.h"

#include "PortalNames.h"

#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

PortalRequest::PortalRequest(QObject* context, Answer answer, Failure failure)
    : QObject(context)
    , m_answer(std::move(answer))
    , m_failure(std::move(failure))
{
}

QString PortalRequest::nextToken()
{
    static int counter = 0;
    return QStringLiteral("voxaria%1").arg(++counter);
}

// The portal names these objects after the caller's unique name without its colon and with its dots
// as underscores (":1.42" → "1_42").
QString PortalRequest::handlePath(const QDBusConnection& bus, const QString& kind, const QString& token)
{
    QString sender = bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    return QStringLiteral("%1/%2/%3/%4").arg(PortalNames::objectPath, kind, sender, token);
}

void PortalRequest::send(QDBusMessage call, const QString& token, QObject* context, Answer answer, Failure failure)
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    auto* request = new PortalRequest(context, std::move(answer), std::move(failure));
    request->listen(handlePath(bus, QStringLiteral("request"), token));
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call), request);
    connect(watcher, &QDBusPendingCallWatcher::finished, request, [request](QDBusPendingCallWatcher* finished) {
        finished->deleteLater();
        const QDBusPendingReply<QDBusObjectPath> reply = *finished;
        if (reply.isError())
            return request->fail(reply.error().message());
        // Portals older than 0.9 chose another path; the one they answer is the one that will speak.
        if (reply.value().path() != request->m_path) {
            request->stopListening();
            request->listen(reply.value().path());
        }
    });
}

void PortalRequest::listen(const QString& path)
{
    m_path = path;
    QDBusConnection::sessionBus().connect(PortalNames::service, m_path, QStringLiteral("org.freedesktop.portal.Request"),
        QStringLiteral("Response"), this, SLOT(onResponse(uint, QVariantMap)));
}

void PortalRequest::stopListening()
{
    QDBusConnection::sessionBus().disconnect(PortalNames::service, m_path, QStringLiteral("org.freedesktop.portal.Request"),
        QStringLiteral("Response"), this, SLOT(onResponse(uint, QVariantMap)));
}

void PortalRequest::onResponse(uint response, const QVariantMap& results)
{
    stopListening();
    m_answer(response, results);
    deleteLater();
}

void PortalRequest::fail(const QString& error)
{
    stopListening();
    m_failure(error);
    deleteLater();
}
