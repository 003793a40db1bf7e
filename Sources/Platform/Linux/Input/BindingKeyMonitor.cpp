#include "BindingKeyMonitor.h"

#include "Shared/Logging.h"

#include <QLocalServer>
#include <QLocalSocket>

namespace {

const QByteArray kPress = "press\n";
const QByteArray kRelease = "release\n";
const QByteArray kTaken = "ok\n";
// A compositor binding runs us on every key press: answering takes a few milliseconds, and a
// program that does not answer in this time is stuck, not slow.
constexpr int kAnswerTimeoutMs = 3000;

}

BindingKeyMonitor::BindingKeyMonitor(QString socketPath, DictationKey dictationKey)
    : m_socketPath(std::move(socketPath))
    , m_dictationKey(std::move(dictationKey))
    , m_handlers([this] { return listen(); }, [this] { stopListening(); })
{
}

BindingKeyMonitor::~BindingKeyMonitor() = default;

KeyMonitor::Token BindingKeyMonitor::addMonitor(Handler handler)
{
    return m_handlers.add(std::move(handler));
}

void BindingKeyMonitor::removeMonitor(Token token)
{
    m_handlers.remove(token);
}

void BindingKeyMonitor::stopListening()
{
    m_server->close();
    // Later: the last handler may be removed from within one of the server's own signals.
    m_server.release()->deleteLater();
}

bool BindingKeyMonitor::listen()
{
    auto server = std::make_unique<QLocalServer>();
    server->setSocketOptions(QLocalServer::UserAccessOption);
    bool listening = server->listen(m_socketPath);
    if (!listening && server->serverError() == QAbstractSocket::AddressInUseError) {
        // A socket file left by a copy that crashed: nobody answers on it, so it is ours to replace.
        QLocalSocket probe;
        probe.connectToServer(m_socketPath);
        if (probe.waitForConnected(500)) {
            qCWarning(lcHotkey) << "another program already listens on" << m_socketPath;
            return false;
        }
        QLocalServer::removeServer(m_socketPath);
        listening = server->listen(m_socketPath);
    }
    if (!listening) {
        qCWarning(lcHotkey) << "cannot listen for key bindings on" << m_socketPath << ":" << server->errorString();
        return false;
    }
    connect(server.get(), &QLocalServer::newConnection, this, &BindingKeyMonitor::acceptConnections);
    m_server = std::move(server);
    qCInfo(lcHotkey).noquote() << "watching modifier keys through compositor bindings (voxaria --press / --release) on" << m_socketPath;
    return true;
}

void BindingKeyMonitor::acceptConnections()
{
    while (QLocalSocket* socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { readCommand(socket); });
    }
}

void BindingKeyMonitor::readCommand(QLocalSocket* socket)
{
    if (!socket->canReadLine())
        return;
    const QByteArray line = socket->readLine();
    if (line != kPress && line != kRelease) {
        qCWarning(lcHotkey) << "ignoring an unknown key binding command" << line.trimmed();
        socket->disconnectFromServer();
        return;
    }
    socket->write(kTaken);
    socket->flush();
    const ModifierKey key = m_dictationKey();
    // No time: the binding's process starts too late for its clock to say how long the key was held.
    m_handlers.deliver(FlagsChangedEvent{key.virtualKeyCode, line == kPress ? key.flag : 0, std::nullopt});
}

bool BindingKeyMonitor::send(const QString& socketPath, Command command, QString* error)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath);
    if (!socket.waitForConnected(kAnswerTimeoutMs)) {
        *error = socket.errorString();
        return false;
    }
    socket.write(command == Command::press ? kPress : kRelease);
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
