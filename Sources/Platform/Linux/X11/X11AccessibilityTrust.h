#pragma once

#include "Platform/AccessibilityTrust.h"

// On X11 nothing has to be granted: any client may read raw key events and post XTest keys, as
// long as the server offers XInput 2 and XTEST. Without an X display (a pure Wayland session)
// neither works and nobody can grant it, so the prompt only logs.
class X11AccessibilityTrust final : public AccessibilityTrust {
public:
    bool isTrusted(bool prompt) override;
};
