#include "GnomeShellVersion.h"

#include "Shared/Logging.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>

namespace {

// The shell answers at once when it runs; a bus that hangs must not leave the question open.
constexpr int answerTimeoutMs = 5000;

}

void GnomeShellVersion::ask(QObject* context, std::function<void(std::optional<int> major)> answer)
{
    QDBusMessage get = QDBusMessage::createMethodCall(QStringLiteral("org.gnome.Shell"), QStringLiteral("/org/gnome/Shell"),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QStringLiteral("org.gnome.Shell") << QStringLiteral("ShellVersion");
    auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(get, answerTimeoutMs), context);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context, [answer = std::move(answer)](QDBusPendingCallWatcher* call) {
        call->deleteLater();
        const QDBusPendingReply<QDBusVariant> reply = *call;
        if (reply.isError()) {
            qCWarning(lcInsert).noquote() << "GNOME Shell did not say its version:" << reply.error().message();
            answer(std::nullopt);
            return;
        }
        const QString version = reply.value().variant().toString();
        qCInfo(lcInsert).noquote() << "GNOME Shell" << version;
        answer(majorOf(version));
    });
}

std::optional<int> GnomeShellVersion::majorOf(const QString& version)
{
    bool isNumber = false;
    const int major = version.section(QLatin1Char('.'), 0, 0).toInt(&isNumber);
    if (!isNumber || major <= 0)
        return std::nullopt;
    return major;
}
