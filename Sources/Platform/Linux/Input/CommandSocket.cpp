#include "CommandSocket.h"

#include "Shared/Logging.h"

#include <QLocalServer>
#include <QLocalSocket>

#include <algorithm>

namespace {

const std::map<CommandSocket::Command, QByteArray> kLines = {
    {CommandSocket::Command::press, "press\n"},
    {CommandSocket::Command::release, "release\n"},
    {CommandSocket::Command::show, "show\n"},
};
const QByteArray kTaken = "ok\n";
// A compositor binding runs us on every key press: answering takes a few milliseconds, and a
// program that does not answer in this time is stuck, not slow.
constexpr int kAnswerTimeoutMs = 3000;

}

CommandSocket::CommandSocket(QString path)
    : m_path(std::move(path))
{
}

CommandSocket::~CommandSocket() = default;

bool CommandSocket::setHandler(Command command, std::function<void()> handler)
{
    if (!handler) {
        m_handlers.erase(command);
        if (m_handlers.empty() && m_server)
            stopListening();
        return true;
    }
    if (!m_server && !listen())
        return false;
    m_handlers[command] = std::move(handler);
    return true;
}

void CommandSocket::stopListening()
{
    m_server->close();
    // Later: the last handler may be removed from within one of the server's own signals.
    m_server.release()->deleteLater();
}

bool CommandSocket::listen()
{
    auto server = std::make_unique<QLocalServer>();
    server->setSocketOptions(QLocalServer::UserAccessOption);
    bool listening = server->listen(m_path);
    if (!listening && server->serverError() == QAbstractSocket::AddressInUseError) {
        // A socket file left by a copy that crashed: nobody answers on it, so it is ours to replace.
        QLocalSocket probe;
        probe.connectToServer(m_path);
        if (probe.waitForConnected(500)) {
            qCWarning(lcApp) << "another program already listens on" << m_path;
            return false;
        }
        QLocalServer::removeServer(m_path);
        listening = server->listen(m_path);
    }
    if (!listening) {
        qCWarning(lcApp) << "cannot listen for commands on" << m_path << ":" << server->errorString();
        return false;
    }
    connect(server.get(), &QLocalServer::newConnection, this, &CommandSocket::acceptConnections);
    m_server = std::move(server);
    qCInfo(lcApp).noquote() << "listening for commands of other copies on" << m_path;
    return true;
}

void CommandSocket::acceptConnections()
{
    while (QLocalSocket* socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { readCommand(socket); });
    }
}

void CommandSocket::readCommand(QLocalSocket* socket)
{
    if (!socket->canReadLine())
        return;
    const QByteArray line = socket->readLine();
    const auto known = std::find_if(kLines.begin(), kLines.end(), [&](const auto& entry) { return entry.second == line; });
    const auto handler = known == kLines.end() ? m_handlers.end() : m_handlers.find(known->first);
    if (handler == m_handlers.end()) {
        qCWarning(lcApp) << "ignoring a command nothing here takes:" << line.trimmed();
        socket->disconnectFromServer();
        return;
    }
    socket->write(kTaken);
    socket->flush();
    // A copy: the handler may remove itself.
    const std::function<void()> run = handler->second;
    run();
}

bool CommandSocket::send(const QString& path, Command command, QString* error)
{
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(kAnswerTimeoutMs)) {
        *error = socket.errorString();
        return false;
    }
    socket.write(kLines.at(command));
    if (!socket.waitForBytesWritten(kAnswerTimeoutMs)) {
        *error = socket.errorString();
        return false;
    }
    while (!socket.canReadLine()) {
        if (!socket.waitForReadyRead(kAnswerTimeoutMs)) {
            *error = QStringLiteral("no answer: ") + socket.errorString();
            return false;
        }
    }
    if (socket.readLine() != kTaken) {
        *error = QStringLiteral("the command was not taken");
        return false;
    }
    return true;
}
