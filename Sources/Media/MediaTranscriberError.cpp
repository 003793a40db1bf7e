#include "MediaTranscriberError.h"

#include <QRegularExpression>

namespace {

using Case = MediaTranscriberErrorCase;

// The first row whose pattern occurs in the line wins, so a line naming two causes ("Private video.
// Sign in if you've been granted access") reads as the more precise one. A pattern names what only
// a site or the network says (an HTTP status, a site's own sentence), never a bare "not found":
// yt-dlp also reports "ffmpeg not found" or "fragment 3 not found", which are no missing video.
struct KnownFailure {
    Case kind;
    QRegularExpression pattern;
};

QRegularExpression pattern(const char* alternatives)
{
    return QRegularExpression(QLatin1String(alternatives), QRegularExpression::CaseInsensitiveOption);
}

const KnownFailure kKnownFailures[] = {
    {Case::privateVideo, pattern("Private video|This video is private")},
    {Case::videoUnavailable,
        pattern("Video unavailable|This video has been removed|account .*terminated|This video is no longer available|"
                "\\bHTTP Error 410\\b")},
    {Case::geoRestricted, pattern("not\\b.{0,40}\\bavailable (?:in|from) your (?:country|location)|geo[- ]?restrict")},
    {Case::loginRequired,
        pattern("Sign in to confirm|login required|use --cookies|members-only|only available (?:for|to) (?:registered users|members)")},
    {Case::liveNotStarted, pattern("This live event will begin|Premieres in|live event has not started")},
    {Case::noConnection,
        pattern("Failed to resolve|Name or service not known|Temporary failure in name resolution|No address associated with hostname|"
                "Network is unreachable|Connection refused|Connection reset by peer|timed out")},
    {Case::accessDenied, pattern("\\bHTTP Error 403\\b")},
    {Case::videoNotFound, pattern("\\bHTTP Error 404\\b")},
    {Case::tooManyRequests, pattern("\\bHTTP Error 429\\b|Too Many Requests")},
    {Case::siteFailing, pattern("\\bHTTP Error 5\\d\\d\\b")},
    {Case::unsupportedAddress, pattern("Unsupported URL|is not a valid URL")},
    {Case::ytDlpOutdated, pattern("Unable to extract|please report this issue|nsig extraction failed")},
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
    case Case::accessDenied: return QStringLiteral("O site recusou o acesso ao vídeo (erro 403). Tente de novo mais tarde.");
    case Case::geoRestricted: return QStringLiteral("Este vídeo não está disponível no seu país.");
    case Case::liveNotStarted: return QStringLiteral("Esta transmissão ainda não começou.");
    case Case::tooManyRequests: return QStringLiteral("O site recebeu pedidos demais (erro 429). Tente de novo mais tarde.");
    case Case::siteFailing: return QStringLiteral("O site está com problemas no momento (erro do servidor). Tente de novo mais tarde.");
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
