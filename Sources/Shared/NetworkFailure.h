#pragma once

#include <QString>

class QNetworkReply;

// Why a download failed, worded for the user: Qt's own descriptions are English and technical.
namespace NetworkFailure {

// In lower case, to follow a prefix ("Falha ao instalar yt-dlp: …"). `retryAdvice` ends the
// reasons where trying again can help, and says what the next try does.
QString reason(const QNetworkReply& reply, const QString& retryAdvice);

}
