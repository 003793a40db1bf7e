#pragma once

#include "Platform/LoginItem.h"

// ~/.config/autostart/<app id>.desktop: present and not Hidden=true means enabled.
class XdgAutostartLoginItem final : public LoginItem {
public:
    Status status() override;
    std::optional<QString> registerItem() override;
    std::optional<QString> unregisterItem() override;
};
