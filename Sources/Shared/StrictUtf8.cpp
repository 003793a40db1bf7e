#include "StrictUtf8.h"

#include "Logging.h"

#include <QStringDecoder>

std::optional<QString> decodeStrictUtf8(const QByteArray& bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

QString decodeTranscript(const QByteArray& bytes)
{
    if (std::optional<QString> text = decodeStrictUtf8(bytes))
        return *text;
    qCWarning(lcWhisper) << "the transcript holds invalid UTF-8; those bytes were replaced";
    return QString::fromUtf8(bytes);
}
