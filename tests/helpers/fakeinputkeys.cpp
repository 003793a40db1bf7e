// Types keys into a KWin session through its fake input, for tests. Usage: fakeinputkeys STEP...,
// a step being +CODE (press), -CODE (release) or MILLISECONDS (wait), codes the kernel's (100:
// Right Alt). Exit status 3 when KWin offers no fake input to this program (no desktop file names it).
#include "Platform/Linux/Wayland/WaylandClient.h"

#include "fake-input-client-protocol.h"

#include <QCoreApplication>
#include <QThread>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const auto client = WaylandClient::connect();
    if (!client || !client->fakeInput())
        return 3;
    org_kde_kwin_fake_input_authenticate(client->fakeInput(), "fakeinputkeys", "tests");
    for (const QString& step : app.arguments().mid(1)) {
        if (step.startsWith('+') || step.startsWith('-'))
            org_kde_kwin_fake_input_keyboard_key(client->fakeInput(), step.mid(1).toUInt(), step.startsWith('+') ? 1 : 0);
        else
            QThread::msleep(step.toULong());
        client->roundtrip();
    }
    return 0;
}
