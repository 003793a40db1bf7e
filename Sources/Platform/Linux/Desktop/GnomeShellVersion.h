#pragma once

#include <QObject>
#include <QString>

#include <functional>
#include <optional>

// The version of the running GNOME Shell, asked over the session bus (org.gnome.Shell's
// ShellVersion property) without waiting for it.
namespace GnomeShellVersion {

// `answer` runs on the main thread, unless `context` is gone by then, with the major version (46
// for "46.2"), or nothing when the shell did not say within a few seconds.
void ask(QObject* context, std::function<void(std::optional<int> major)> answer);

// "46.2" → 46, "3.38.4" → 3; nothing for what is not a version.
std::optional<int> majorOf(const QString& version);

}
