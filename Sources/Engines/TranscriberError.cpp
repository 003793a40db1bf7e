#include "TranscriberError.h"

QString TranscriberError::description() const
{
    return QStringLiteral("Reconhecimento de fala indisponível para o idioma ") + detail()
        + QStringLiteral(". Baixe o modelo do motor nativo no menu ou escolha outro idioma.");
}
