#pragma once

#include "Platform/LoginItem.h"

// $XDG_CONFIG_HOME/autostart/<app id>.desktop: present and not Hidden=true means enabled. The entry
// is the program's own desktop entry; its Exec names "voxaria" when that is the program running,
// else the running executable's absolute path (a build tree, a copy outside PATH).
class XdgAutostartLoginItem final : public LoginItem {
public:
    Status status() override;
    std::optional<QString> registerItem() override;
    std::optional<QString> unregisterItem() override;

    // Where the autostart entry lives, read afresh (XDG_CONFIG_HOME may change).
    static QString entryPath();
    // The Exec value for the running executable.
    static QString execCommand();
};
