#pragma once

#include "Platform/AccessibilityTrust.h"

// A trust answer chosen by the test; counts the questions and remembers whether they prompted.
class FakeAccessibilityTrust final : public AccessibilityTrust {
public:
    bool trusted = true;
    int checks = 0;
    bool lastPrompt = false;

    bool isTrusted(bool prompt) override
    {
        ++checks;
        lastPrompt = prompt;
        return trusted;
    }
};
