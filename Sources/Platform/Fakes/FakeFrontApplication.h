#pragma once

#include "Platform/FrontApplication.h"

// An application in front chosen by the test.
class FakeFrontApplication final : public FrontApplication {
public:
    std::optional<QString> name;
    std::optional<WindowClass> focusedWindowClass;
    int queryCount = 0;

    // Answers on the event loop, as a compositor asked on another thread does.
    void ask(QObject* context, AnswerHandler done) override;
    std::optional<QString> localizedName() override;
    std::optional<WindowClass> windowClass() override;
};
