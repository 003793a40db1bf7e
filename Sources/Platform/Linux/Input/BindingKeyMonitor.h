#pragma once

#include "ModifierKeys.h"
#include "Platform/KeyMonitor.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>

class QLocalServer;
class QLocalSocket;

// The dictation key as the compositor sees it: on Wayland, where no client may watch the keyboard,
// the user binds the key in the compositor to `voxaria --press` and `voxaria --release`, and those
// short-lived processes hand the command to the running program over a local socket that only this
// user can reach. The socket is listened on only while a handler is installed, so a second copy
// started by mistake never takes it from the first.
class BindingKeyMonitor final : public QObject, public KeyMonitor {
    Q_OBJECT
public:
    // The key a command stands for: the dictation key chosen at that moment.
    using DictationKey = std::function<ModifierKey()>;

    BindingKeyMonitor(QString socketPath, DictationKey dictationKey);
    ~BindingKeyMonitor() override;

    Token addMonitor(Handler handler) override;
    void removeMonitor(Token token) override;

    enum class Command { press, release };
    // From the short-lived process: delivers one command to the running program. False, with the
    // reason in `error`, when no program listens or it did not take the command.
    static bool send(const QString& socketPath, Command command, QString* error);

private:
    bool listen();
    void stopListening();
    void acceptConnections();
    void readCommand(QLocalSocket* socket);

    QString m_socketPath;
    DictationKey m_dictationKey;
    std::unique_ptr<QLocalServer> m_server;
    KeyHandlerList m_handlers;
};
