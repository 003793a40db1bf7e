#pragma once

// Whether this process may watch the keyboard of other applications and post synthetic keys to
// them. Main thread only.
class AccessibilityTrust {
public:
    virtual ~AccessibilityTrust() = default;

    // With `prompt`, a platform that can ask the user for the grant does so when it is missing.
    virtual bool isTrusted(bool prompt) = 0;
};
