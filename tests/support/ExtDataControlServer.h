#pragma once

#include "HeadlessCompositor.h"

// The test server that offers a seat and the standard data-control protocol (ext) and nothing else,
// standing for the compositors that offer only that one (Plasma 6.5 and later). Its clipboard is
// read and written through our datacontrolclipboard helper, since wl-clipboard cannot speak to it.
class ExtDataControlServer final : public HeadlessCompositor {
public:
    ExtDataControlServer();

    // Starts the server and waits until its socket takes clients.
    bool start() override;
    QProcessEnvironment sessionVariables() const override;

protected:
    QStringList copyCommand(const QString& mimeType) const override;
    QStringList pasteCommand(const QString& mimeType) const override;
    QStringList typesCommand() const override;
};
