#pragma once

#include "Platform/SystemTray.h"

// A tray the test puts in place or takes away; it calls onChange() itself.
class FakeSystemTray final : public SystemTray {
public:
    bool available = true;
    bool isAvailable() override { return available; }
};
