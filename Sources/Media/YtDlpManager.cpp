#include "YtDlpManager.h"

#include "Engines/WhisperTranscriber.h"
#include "Shared/AppPaths.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QFileInfo>
#include <QHash>
#include <QProcess>
#include <QTimer>

namespace {

// A program that hangs instead of printing its version is given up on after this long.
constexpr int kVersionTimeoutMs = 10000;

struct KnownVersion {
    QDateTime modified;
    std::optional<QDate> version;
};

// By path; main thread only.
QHash<QString, KnownVersion>& knownVersions()
{
    static QHash<QString, KnownVersion> versions;
    return versions;
}

// "2023.03.04", or a nightly build's "2024.12.13.232723".
std::optional<QDate> parseVersion(const QByteArray& output)
{
    const QDate date = QDate::fromString(QString::fromUtf8(output).trimmed().left(10), QStringLiteral("yyyy.MM.dd"));
    return date.isValid() ? std::optional<QDate>(date) : std::nullopt;
}

}

QStringList YtDlpManager::candidates()
{
    return {
        installedPath(),
        QStringLiteral("/usr/local/bin/yt-dlp"),
        QStringLiteral("/usr/bin/yt-dlp"),
    };
}

std::optional<QString> YtDlpManager::binaryURL()
{
    return WhisperTranscriber::firstExecutable(candidates());
}

void YtDlpManager::readVersion(const QString& path, QObject* context, std::function<void(std::optional<QDate> version)> done)
{
    const QDateTime modified = QFileInfo(path).lastModified();
    if (const auto known = knownVersions().constFind(path); known != knownVersions().cend() && known->modified == modified) {
        done(known->version);
        return;
    }
    auto* process = new QProcess(context);
    process->setStandardErrorFile(QProcess::nullDevice());
    const auto answer = [process, path, modified, done = std::move(done)](std::optional<QDate> version) {
        process->disconnect();
        process->deleteLater();
        knownVersions().insert(path, {modified, version});
        done(version);
    };
    QObject::connect(process, &QProcess::finished, context, [process, answer] { answer(parseVersion(process->readAllStandardOutput())); });
    QObject::connect(process, &QProcess::errorOccurred, context, [answer](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            answer(std::nullopt);
    });
    QTimer::singleShot(kVersionTimeoutMs, process, &QProcess::kill);
    process->start(path, {QStringLiteral("--version")});
}

bool YtDlpManager::isOutdated(QDate version, QDate today)
{
    return version < today.addYears(-1);
}

QString YtDlpManager::installedPath()
{
    return AppPaths::dataFolder() + QStringLiteral("/bin/yt-dlp");
}

YtDlpInstallation* YtDlpManager::install(
    YtDlpInstallation::Progress progress, YtDlpInstallation::Completion completion, QObject* context, const QUrl& source)
{
    // Without a context the application holds it, so quitting mid-download still removes the
    // temporary file.
    return new YtDlpInstallation(
        source, installedPath(), std::move(progress), std::move(completion), context ? context : QCoreApplication::instance());
}
