#include "FakeFrontApplication.h"

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
