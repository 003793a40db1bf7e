#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <map>
#include <memory>

class QLocalServer;
class QLocalSocket;

// The running program's door for its own short-lived copies: `voxaria --press` / `--release` run
// by a compositor key binding, and a second `voxaria` started while this one runs. Each connection
// carries one command line, answered "ok" once taken, over a local socket in the runtime folder
// that only this user can reach. The socket is listened on only while some command has a handler,
// so a copy that never took the single-instance lock never takes the socket from the one that did.
class CommandSocket final : public QObject {
    Q_OBJECT
public:
    enum class Command { press, release, show };

    explicit CommandSocket(QString path);
    ~CommandSocket() override;

    // `handler` runs on the main thread for each `command` that arrives; an empty one removes it.
    // False, logged, when the socket cannot be listened on.
    bool setHandler(Command command, std::function<void()> handler);

    // From the short-lived process: delivers one command to the running program. False, with the
    // reason in `error`, when no program listens or it did not take the command.
    static bool send(const QString& path, Command command, QString* error);

private:
    bool listen();
    void stopListening();
    void acceptConnections();
    void readCommand(QLocalSocket* socket);

    QString m_path;
    std::unique_ptr<QLocalServer> m_server;
    std::map<Command, std::function<void()>> m_handlers;
};
