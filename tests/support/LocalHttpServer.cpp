#include "LocalHttpServer.h"

#include <QRegularExpression>

LocalHttpServer::LocalHttpServer()
{
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = m_server.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
                if (socket->peek(65536).contains("\r\n\r\n"))
                    answer(socket);
            });
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
    m_server.listen(QHostAddress::LocalHost);
}

QUrl LocalHttpServer::baseUrl() const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1/files/").arg(m_server.serverPort()));
}

void LocalHttpServer::answer(QTcpSocket* socket)
{
    const QByteArray request = socket->readAll();
    static const QRegularExpression rangePattern("\r\n(Range: bytes=(\\d+)-)", QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch range = rangePattern.match(QString::fromLatin1(request));
    ranges.append(range.captured(1).toLatin1());
    const Route route = m_routes.value(QString::fromLatin1(request.split(' ').value(1)), Route{"<html><body>Not Found</body></html>", 404});

    static const QRegularExpression ifRangePattern("\r\nIf-Range: ([^\r]*)", QRegularExpression::CaseInsensitiveOption);
    const QString ifRange = ifRangePattern.match(QString::fromLatin1(request)).captured(1);
    const bool sameFile = route.ignoresIfRange || ifRange.isEmpty() || ifRange == route.etag;
    const qint64 from = route.status == 200 && route.sendLength && sameFile ? range.captured(2).toLongLong() : 0;
    QByteArray body = route.body.mid(from);
    QByteArray head = "HTTP/1.1 " + QByteArray::number(route.status) + " Answer\r\n";
    if (!route.redirectTo.isEmpty()) {
        head = "HTTP/1.1 302 Found\r\nLocation: " + baseUrl().resolved(route.redirectTo).toEncoded() + "\r\n";
        body.clear();
    } else if (route.status == 416 || (from > 0 && body.isEmpty())) {
        head = "HTTP/1.1 416 Range Not Satisfiable\r\n";
        if (route.sendsContentRange)
            head += "Content-Range: bytes */" + QByteArray::number(route.body.size()) + "\r\n";
        body.clear();
    } else if (from > 0) {
        head = "HTTP/1.1 206 Partial\r\nContent-Range: bytes " + QByteArray::number(from) + '-' + QByteArray::number(route.body.size() - 1)
            + '/' + (route.totalUnknown ? QByteArray("*") : QByteArray::number(route.body.size())) + "\r\n";
    }
    if (!route.etag.isEmpty())
        head += "ETag: " + route.etag + "\r\n";
    if (route.sendLength)
        head += "Content-Length: " + QByteArray::number(route.announcedLength >= 0 ? route.announcedLength : body.size()) + "\r\n";
    socket->write(head + "Connection: close\r\n\r\n");

    m_held = socket;
    m_heldBody = route.cutAt >= 0 ? body.left(route.cutAt) : body;
    m_sent = 0;
    send(route.holdAt);
}

void LocalHttpServer::release(qint64 holdAt)
{
    if (m_held)
        send(holdAt);
}

void LocalHttpServer::send(qint64 upTo)
{
    const qint64 end = upTo >= 0 ? qMin(upTo, qint64(m_heldBody.size())) : m_heldBody.size();
    m_held->write(m_heldBody.mid(m_sent, end - m_sent));
    m_sent = end;
    if (m_sent == m_heldBody.size())
        m_held->disconnectFromHost();
}
