#include "TranscriberError.h"

QString TranscriberError::description() const
{
#ifdef Q_OS_MACOS
    return QStringLiteral("Reconhecimento de fala indisponível para o idioma ") + detail()
        + QStringLiteral(". Verifique em Ajustes > Teclado > Ditado se o idioma está instalado.");
#else
    return QStringLiteral("Reconhecimento de fala indisponível para o idioma ") + detail()
        + QStringLiteral(". Baixe o modelo do motor nativo no menu ou escolha outro idioma.");
#endif
}
