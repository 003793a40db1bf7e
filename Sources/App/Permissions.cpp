#include "Permissions.h"

Permissions::Needs Permissions::check(const QString&)
{
    return {};
}

void Permissions::requestMicrophone(std::function<void(bool)> completion)
{
    completion(true);
}

void Permissions::requestSpeechRecognition(std::function<void(bool)> completion)
{
    completion(true);
}

Alerts::Alert Permissions::permissionsAlert(const Needs&, const QString&)
{
    return {QStringLiteral("Permissões do Voxaria"), {}, {{QStringLiteral("Abrir ajuda")}, {QStringLiteral("OK")}}};
}

QUrl Permissions::helpPageURL()
{
    return {};
}

std::optional<Alerts::Alert> Permissions::noEngineAlert(bool, bool, const QString&)
{
    return std::nullopt;
}
