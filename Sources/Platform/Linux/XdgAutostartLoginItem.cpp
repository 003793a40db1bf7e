#include "XdgAutostartLoginItem.h"

std::unique_ptr<LoginItem> LoginItem::makeDefault()
{
    return std::make_unique<XdgAutostartLoginItem>();
}

LoginItem::Status XdgAutostartLoginItem::status()
{
    return Status::notRegistered;
}

std::optional<QString> XdgAutostartLoginItem::registerItem()
{
    return QStringLiteral("ainda não disponível");
}

std::optional<QString> XdgAutostartLoginItem::unregisterItem()
{
    return QStringLiteral("ainda não disponível");
}
