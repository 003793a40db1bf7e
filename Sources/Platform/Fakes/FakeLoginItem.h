#pragma once

#include "Platform/LoginItem.h"

#include <QStringList>

// Records every call; registering and unregistering move `current`, unless `failure` is set, in
// which case they report it and change nothing.
class FakeLoginItem final : public LoginItem {
public:
    Status current = Status::notRegistered;
    std::optional<QString> failure;
    QStringList calls; // "status", "register", "unregister"

    Status status() override
    {
        calls.append(QStringLiteral("status"));
        return current;
    }
    std::optional<QString> registerItem() override { return change(QStringLiteral("register"), Status::enabled); }
    std::optional<QString> unregisterItem() override { return change(QStringLiteral("unregister"), Status::notRegistered); }

private:
    std::optional<QString> change(const QString& call, Status to)
    {
        calls.append(call);
        if (failure)
            return failure;
        current = to;
        return std::nullopt;
    }
};
