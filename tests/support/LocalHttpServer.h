#pragma once

#include <QHash>
#include <QList>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

// A small HTTP/1.1 server on 127.0.0.1 for download tests: one request per connection, answers
// scripted per file name, able to misbehave the ways real servers do.
class LocalHttpServer final : public QObject {
public:
    struct Route {
        QByteArray body;
        int status = 200;
        bool sendLength = true; // false: the end of the body is the connection's close
        qint64 announcedLength = -1; // a Content-Length other than the body's (a lying server)
        qint64 cutAt = -1; // close the connection after this many bytes of the body
        qint64 holdAt = -1; // stop after this many bytes of the body until release()
        QString redirectTo; // answer 302 to this file name
        QByteArray etag; // sent as ETag; a Range whose If-Range differs gets the whole file
        bool ignoresIfRange = false; // a Range gets the rest of the current file, whatever its If-Range
        bool totalUnknown = false; // a 206 says "bytes <from>-<to>/*"
        bool sendsContentRange = true; // false: a 416 says nothing of the file's length
    };

    LocalHttpServer();
    QUrl baseUrl() const; // http://127.0.0.1:<port>/files/
    void setRoute(const QString& fileName, Route route) { m_routes.insert("/files/" + fileName, std::move(route)); }
    // Sends the held answer on, up to byte `holdAt` of its body (-1: to its end).
    void release(qint64 holdAt = -1);

    QList<QByteArray> ranges; // the Range header of every request, in order ("" when none)

private:
    void answer(QTcpSocket* socket);
    void send(qint64 upTo);

    QTcpServer m_server;
    QHash<QString, Route> m_routes;
    QPointer<QTcpSocket> m_held;
    QByteArray m_heldBody;
    qint64 m_sent = 0;
};
