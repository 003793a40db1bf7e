#pragma once

#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <functional>

// One call to an xdg-desktop-portal method that answers later: the portal replies at once with a
// request object and tells the outcome through that object's Response signal, possibly after the
// user answered a dialog. The Response is listened for on the path the portal will choose
// (derived from our bus name and a token of ours) before the call goes out, so a quick answer is
// never missed. Ends itself after the Response. Main thread only.
class PortalRequest final : public QObject {
    Q_OBJECT
public:
    // 0: granted, 1: the user cancelled, 2: ended otherwise (as the portal numbers them).
    using Answer = std::function<void(uint response, const QVariantMap& results)>;
    // A failed call (no portal, no such interface): the bus's error message.
    using Failure = std::function<void(const QString& error)>;

    // Sends `call`, whose options carry `token` (from nextToken()) as their handle_token, and reports
    // to `answer` or `failure`, unless `context` is gone by then.
    static void send(QDBusMessage call, const QString& token, QObject* context, Answer answer, Failure failure);

    // A fresh token for the handle_token option of the next call.
    static QString nextToken();
    // The object path the portal gives a request or session named by `token` for this connection.
    static QString handlePath(const QDBusConnection& bus, const QString& kind, const QString& token);

private slots:
    void onResponse(uint response, const QVariantMap& results);

private:
    PortalRequest(QObject* context, Answer answer, Failure failure);
    void listen(const QString& path);
    void stopListening();
    void fail(const QString& error);

    QString m_path;
    Answer m_answer;
    Failure m_failure;
};
