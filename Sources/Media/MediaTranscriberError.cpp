#include "MediaTranscriberError.h"

#include <QRegularExpression>

namespace {

using Case = MediaTranscriberErrorCase;

// The first row whose pattern occurs in the line wins, so a line naming two causes ("Private video.
// Sign in if you've been granted access") reads as the more precise one.
struct KnownFailure {
    Case kind;
    QRegularExpression pattern;
};

const KnownFailure kKnownFailures[] = {
    {Case::privateVideo, QRegularExpression(QStringLiteral("Private video"), QRegularExpression::CaseInsensitiveOption)},
    {Case::videoUnavailable,
        QRegularExpression(QStringLiteral("Video unavailable|This video has been removed|account .*terminated"),
            QRegularExpression::CaseInsensitiveOption)},
    {Case::loginRequired,
        QRegularExpression(QStringLiteral("Sign in to confirm|login required|use --cookies"), QRegularExpression::CaseInsensitiveOption)},
    {Case::noConnection,
        QRegularExpression(QStringLiteral("Failed to resolve|Name or service not known|Temporary failure in name resolution|"
                                          "Network is unreachable|Connection refused|timed out"),
            QRegularExpression::CaseInsensitiveOption)},
    {Case::videoNotFound, QRegularExpression(QStringLiteral("HTTP Error 404|not found"), QRegularExpression::CaseInsensitiveOption)},
    {Case::unsupportedAddress,
        QRegularExpression(QStringLiteral("Unsupported URL|is not a valid URL"), QRegularExpression::CaseInsensitiveOption)},
    {Case::ytDlpOutdated,
        QRegularExpression(QStringLiteral("Unable to extract|please report this issue|nsig extraction failed"),
            QRegularExpression::CaseInsensitiveOption)},
};

}

MediaTranscriberError MediaTranscriberError::fromYtDlpLine(QString line)
{
    for (const KnownFailure& failure : kKnownFailures) {
        if (failure.pattern.match(line).hasMatch())
            return {failure.kind, std::move(line)};
    }
    return downloadFailed(std::move(line));
}

QString MediaTranscriberError::description() const
{
    switch (errorCase()) {
    case Case::downloadFailed: return QStringLiteral("Falha ao baixar o vídeo: ") + detail();
    case Case::videoNotFound: return QStringLiteral("O vídeo não foi encontrado (erro 404). Confira o link.");
    case Case::privateVideo: return QStringLiteral("Este vídeo é privado.");
    case Case::videoUnavailable: return QStringLiteral("Este vídeo foi removido ou não está disponível.");
    case Case::loginRequired: return QStringLiteral("Este vídeo exige login ou cookies.");
    case Case::unsupportedAddress: return QStringLiteral("Este endereço não é de um vídeo suportado.");
    case Case::noConnection: return QStringLiteral("Sem conexão com a internet.");
    case Case::ytDlpOutdated: return QStringLiteral("O site mudou e o yt-dlp precisa ser atualizado.");
    case Case::modelMissing: return QStringLiteral("O modelo Whisper ainda não foi baixado. Use o menu \"Modelo Whisper\" primeiro.");
    case Case::cancelled: return QStringLiteral("Operação cancelada.");
    }
    return {};
}

QString MediaTranscriberError::toolOutput() const
{
    switch (errorCase()) {
    case Case::downloadFailed:
    case Case::modelMissing:
    case Case::cancelled: return {};
    default: return detail();
    }
}
