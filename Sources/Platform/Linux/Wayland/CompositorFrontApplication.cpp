#include "CompositorFrontApplication.h"

#include "Shared/Logging.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QThreadPool>
#include <QtEndian>

namespace {

// The compositor answers at once; a stuck one must not hold up the paste for long.
constexpr int replyTimeoutMs = 500;

// sway's IPC message: the magic, the payload's length and the message type, then the payload.
const QByteArray swayMagic = QByteArrayLiteral("i3-ipc");
constexpr quint32 swayGetTree = 4;
constexpr int swayHeaderSize = 6 + 4 + 4;

std::optional<QByteArray> readExactly(QLocalSocket& socket, qint64 size)
{
    QByteArray bytes;
    while (bytes.size() < size) {
        if (socket.bytesAvailable() == 0 && !socket.waitForReadyRead(replyTimeoutMs))
            return std::nullopt;
        bytes += socket.read(size - bytes.size());
    }
    return bytes;
}

// The focused window in sway's tree: a node with the focus that is a window (it has a process),
// not a workspace or an output.
std::optional<QJsonObject> focusedNode(const QJsonObject& node)
{
    if (node.value(QLatin1String("focused")).toBool() && node.value(QLatin1String("pid")).toInteger() > 0)
        return node;
    for (const char* children : {"nodes", "floating_nodes"}) {
        for (const auto& child : node.value(QLatin1String(children)).toArray()) {
            if (std::optional<QJsonObject> found = focusedNode(child.toObject()))
                return found;
        }
    }
    return std::nullopt;
}

}

CompositorFrontApplication::CompositorFrontApplication(Protocol protocol, QString socketPath)
    : m_protocol(protocol)
    , m_socketPath(std::move(socketPath))
{
}

std::unique_ptr<CompositorFrontApplication> CompositorFrontApplication::forSession(const QProcessEnvironment& environment)
{
    const QString swaySocket = environment.value(QStringLiteral("SWAYSOCK"));
    if (!swaySocket.isEmpty())
        return std::make_unique<CompositorFrontApplication>(Protocol::sway, swaySocket);
    const QString signature = environment.value(QStringLiteral("HYPRLAND_INSTANCE_SIGNATURE"));
    if (signature.isEmpty())
        return nullptr;
    // Hyprland moved its sockets from /tmp/hypr into the runtime folder (0.40).
    const QString runtime = environment.value(QStringLiteral("XDG_RUNTIME_DIR"));
    const QString current = runtime + QStringLiteral("/hypr/") + signature + QStringLiteral("/.socket.sock");
    const QString older = QStringLiteral("/tmp/hypr/") + signature + QStringLiteral("/.socket.sock");
    return std::make_unique<CompositorFrontApplication>(
        Protocol::hyprland, !runtime.isEmpty() && QFileInfo::exists(current) ? current : older);
}

std::optional<QJsonObject> CompositorFrontApplication::askSway()
{
    QLocalSocket socket;
    socket.connectToServer(m_socketPath);
    if (!socket.waitForConnected(replyTimeoutMs))
        return std::nullopt;
    QByteArray request = swayMagic;
    request += QByteArray(8, '\0');
    qToLittleEndian<quint32>(0, request.data() + 6);
    // sway speaks in the machine's own byte order; every Linux machine it runs on is little-endian.
    qToLittleEndian<quint32>(swayGetTree, request.data() + 10);
    socket.write(request);
    const std::optional<QByteArray> header = readExactly(socket, swayHeaderSize);
    if (!header || !header->startsWith(swayMagic))
        return std::nullopt;
    const std::optional<QByteArray> tree = readExactly(socket, qFromLittleEndian<quint32>(header->constData() + 6));
    if (!tree)
        return std::nullopt;
    const std::optional<QJsonObject> node = focusedNode(QJsonDocument::fromJson(*tree).object());
    if (!node)
        return std::nullopt;
    const QString appId = node->value(QLatin1String("app_id")).toString();
    const QJsonObject x11 = node->value(QLatin1String("window_properties")).toObject();
    return QJsonObject{
        {QStringLiteral("instance"), appId.isEmpty() ? x11.value(QLatin1String("instance")).toString() : appId},
        {QStringLiteral("class"), appId.isEmpty() ? x11.value(QLatin1String("class")).toString() : appId},
        {QStringLiteral("pid"), node->value(QLatin1String("pid"))},
    };
}

std::optional<QJsonObject> CompositorFrontApplication::askHyprland()
{
    QLocalSocket socket;
    socket.connectToServer(m_socketPath);
    if (!socket.waitForConnected(replyTimeoutMs))
        return std::nullopt;
    socket.write("j/activewindow");
    // Hyprland answers and closes the connection.
    QByteArray reply;
    while (socket.waitForReadyRead(replyTimeoutMs) || socket.bytesAvailable() > 0)
        reply += socket.readAll();
    const QJsonObject window = QJsonDocument::fromJson(reply).object();
    if (window.value(QLatin1String("pid")).toInteger() <= 0)
        return std::nullopt;
    return QJsonObject{
        {QStringLiteral("instance"), window.value(QLatin1String("initialClass"))},
        {QStringLiteral("class"), window.value(QLatin1String("class"))},
        {QStringLiteral("pid"), window.value(QLatin1String("pid"))},
    };
}

std::optional<CompositorFrontApplication::Window> CompositorFrontApplication::focusedWindow()
{
    const std::optional<QJsonObject> window = m_protocol == Protocol::sway ? askSway() : askHyprland();
    if (!window) {
        qCDebug(lcApp) << "The compositor named no focused window at" << m_socketPath;
        return std::nullopt;
    }
    return Window{{window->value(QLatin1String("instance")).toString(), window->value(QLatin1String("class")).toString()},
        window->value(QLatin1String("pid")).toInteger()};
}

// Each compositor step may wait up to half a second: the asking runs on a pooled thread, on a copy
// of its own, so no state is shared with another asking.
void CompositorFrontApplication::ask(QObject* context, AnswerHandler done)
{
    QThreadPool::globalInstance()->start(
        [protocol = m_protocol, socketPath = m_socketPath, context = QPointer<QObject>(context), done = std::move(done)]() mutable {
            CompositorFrontApplication asker(protocol, socketPath);
            answerLater(std::move(context), std::move(done), asker.answerNow());
        });
}

FrontApplication::Answer CompositorFrontApplication::answerNow()
{
    const std::optional<Window> window = focusedWindow();
    if (!window)
        return {};
    const bool classless = window->windowClass.className.isEmpty() && window->windowClass.instance.isEmpty();
    return {nameOf(*window), classless ? std::nullopt : std::optional(window->windowClass)};
}

std::optional<QString> CompositorFrontApplication::nameOf(const Window& window)
{
    if (std::optional<QString> name = m_desktopNames.nameFor(window.windowClass))
        return name;
    if (!window.windowClass.className.isEmpty())
        return window.windowClass.className;
    return DesktopEntryNames::processName(window.pid);
}

std::optional<QString> CompositorFrontApplication::localizedName()
{
    return answerNow().name;
}

std::optional<FrontApplication::WindowClass> CompositorFrontApplication::windowClass()
{
    return answerNow().windowClass;
}
