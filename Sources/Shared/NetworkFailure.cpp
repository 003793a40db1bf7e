#include "NetworkFailure.h"

#include <QNetworkReply>

QString NetworkFailure::reason(const QNetworkReply& reply, const QString& retryAdvice)
{
    switch (reply.error()) {
    case QNetworkReply::HostNotFoundError:
        return QStringLiteral("servidor não encontrado (%1). Verifique a conexão com a internet.").arg(reply.url().host());
    case QNetworkReply::ConnectionRefusedError: return QStringLiteral("o servidor recusou a conexão.");
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::UnknownNetworkError:
    case QNetworkReply::TemporaryNetworkFailureError: return QStringLiteral("a conexão caiu antes do fim do download. ") + retryAdvice;
    case QNetworkReply::TimeoutError:
    case QNetworkReply::OperationCanceledError: // only the stall timeout cancels a running transfer
        return QStringLiteral("o download parou: o servidor não responde. ") + retryAdvice;
    case QNetworkReply::SslHandshakeFailedError: return QStringLiteral("falha na conexão segura com o servidor.");
    default: return QStringLiteral("falha de rede (%1).").arg(reply.errorString());
    }
}
