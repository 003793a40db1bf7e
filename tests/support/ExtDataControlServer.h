#pragma once

#include "HeadlessCompositor.h"

// The test server that offers a seat and the standard data-control protocol (ext) and nothing else,
// as the compositors that offer only that one (Plasma 6.5 and later). Its clipboard is read and
// written through our datacontrolclipboard helper, since wl-clipboard cannot speak to it.
class ExtDataControlServer final : public HeadlessCompositor {
public:
    ExtDataControlServer()
        : HeadlessCompositor("extdatacontrol", QStringLiteral(VOXARIA_HELPER_datacontrolclipboard))
    {
    }

    bool start() override
    {
        QProcessEnvironment environment;
        environment.insert("XDG_RUNTIME_DIR", runtimeFolder());
        return prepareFolder()
            && launch(
                {QStringLiteral(VOXARIA_HELPER_extdatacontrolserver), "wayland-1"}, environment, [] { return true; },
                "the data-control protocol");
    }
    QProcessEnvironment sessionVariables() const override { return waylandSession(); }
};
