#pragma once

#include "Platform/UrlOpener.h"

// The desktop's own handler for the URL's scheme (xdg-open on Linux).
class DesktopUrlOpener final : public UrlOpener {
public:
    bool open(const QUrl& url) override;
};
