#pragma once

#include <functional>

// One preference as a component sees it: read and written through whoever keeps the preferences.
template <typename T> struct Preference {
    std::function<T()> read;
    std::function<void(const T&)> write;
};
