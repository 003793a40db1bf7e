#include "ExtDataControlServer.h"

#include "TestSupport.h"

using namespace std::chrono_literals;

ExtDataControlServer::ExtDataControlServer()
    : HeadlessCompositor("extdatacontrol")
{
}

bool ExtDataControlServer::start()
{
    if (!prepareFolder() || !TestSupport::handOver(folder(), uid(), gid()))
        return fail("cannot prepare the server's folder " + folder());
    QProcessEnvironment environment;
    environment.insert("XDG_RUNTIME_DIR", runtimeFolder());
    m_compositor.setProcessEnvironment(environment);
    TestSupport::startAs(m_compositor, uid(), gid());
    m_compositor.start(QStringLiteral(VOXARIA_HELPER_extdatacontrolserver), {"wayland-1"});
    const bool up = TestSupport::waitUntil([&] { return m_compositor.state() == QProcess::Running && findWaylandSocket(); }, 10s);
    return up || fail("the ext data-control server did not offer its socket within 10 s");
}

QProcessEnvironment ExtDataControlServer::sessionVariables() const
{
    return waylandSession();
}

QStringList ExtDataControlServer::copyCommand(const QString& mimeType) const
{
    return {QStringLiteral(VOXARIA_HELPER_datacontrolclipboard), "copy", mimeType};
}

QStringList ExtDataControlServer::pasteCommand(const QString& mimeType) const
{
    return {QStringLiteral(VOXARIA_HELPER_datacontrolclipboard), "paste", mimeType};
}

QStringList ExtDataControlServer::typesCommand() const
{
    return {QStringLiteral(VOXARIA_HELPER_datacontrolclipboard), "types"};
}
