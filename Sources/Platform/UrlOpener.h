#pragma once

#include <QUrl>

#include <memory>

// Hands a web page or a local file to the user's browser or viewer.
class UrlOpener {
public:
    virtual ~UrlOpener() = default;
    // False when nothing on the desktop could open it.
    virtual bool open(const QUrl& url) = 0;
};
