#include "FakeFrontApplication.h"

void FakeFrontApplication::ask(QObject* context, AnswerHandler done)
{
    ++queryCount;
    answerLater(context, std::move(done), Answer{name, focusedWindowClass});
}

std::optional<QString> FakeFrontApplication::localizedName()
{
    ++queryCount;
    return name;
}

std::optional<FrontApplication::WindowClass> FakeFrontApplication::windowClass()
{
    ++queryCount;
    return focusedWindowClass;
}
