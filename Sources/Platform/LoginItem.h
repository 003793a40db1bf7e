#pragma once

#include <QString>

#include <memory>
#include <optional>

// Whether Voxaria starts when the user logs in.
class LoginItem {
public:
    enum class Status { notRegistered, enabled, requiresApproval, notFound };

    virtual ~LoginItem() = default;
    virtual Status status() = 0;
    // Each returns the reason when it fails, nothing when it worked.
    virtual std::optional<QString> registerItem() = 0;
    virtual std::optional<QString> unregisterItem() = 0;
};
