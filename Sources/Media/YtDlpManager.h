#pragma once

#include "YtDlpInstallation.h"

#include <QDate>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <optional>

class QObject;

// Finds yt-dlp, the program that fetches the audio of online videos, and installs a copy of its own.
namespace YtDlpManager {

// Where yt-dlp is looked for, in order: our own copy in the data folder, then the system.
QStringList candidates();
// The first candidate that is an executable file; looked up afresh at every call.
std::optional<QString> binaryURL();

// The release date the program at `path` reports (`yt-dlp --version` prints "2023.03.04"), absent
// when it does not say within 10 s. Asked once per file version: a changed file is asked again.
// Called on the main thread; `done` comes on it too, at once when the answer is known, and never
// after `context` is gone.
void readVersion(const QString& path, QObject* context, std::function<void(std::optional<QDate> version)> done);
// Released more than a year before `today`: sites have most likely changed under it.
bool isOutdated(QDate version, QDate today = QDate::currentDate());

// Where install() puts our own copy: ~/.local/share/Voxaria/bin/yt-dlp (the first candidate).
QString installedPath();
// The stand-alone program of yt-dlp's latest release for this computer.
QUrl downloadURL();

// Downloads yt-dlp from `source` and installs it at installedPath(), whether or not one is already
// found elsewhere. Called on the main thread; returns at once, and every callback comes later on
// the main thread: `progress` while bytes arrive (only when the server says how many will come),
// then `completion` once. The installation ends with `context` when that goes first (nothing is
// installed and no callback runs), so pass the object the callbacks use. Keep the answer in a
// QPointer: it deletes itself once finished or cancelled.
YtDlpInstallation* install(YtDlpInstallation::Progress progress, YtDlpInstallation::Completion completion, QObject* context = nullptr,
    const QUrl& source = downloadURL());

}
