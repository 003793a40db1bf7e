#pragma once

#include "Platform/UrlOpener.h"

#include <QList>

// Records every URL asked for, opening nothing.
class FakeUrlOpener final : public UrlOpener {
public:
    QList<QUrl> opened;
    bool open(const QUrl& url) override
    {
        opened.append(url);
        return true;
    }
};
