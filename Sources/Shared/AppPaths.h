#pragma once

#include <QString>

// Where Voxaria keeps its files. Computed at every call: tests and users may move XDG_DATA_HOME.
namespace AppPaths {
// Names the settings domain, the desktop file and the files in the runtime folder.
QString applicationId();
// The user's preferences: ~/.config/<applicationId()>.conf.
QString settingsFile();
// ~/.local/share/Voxaria (the application-support folder).
QString dataFolder();
// dataFolder() + "/models".
QString modelsFolder();
// The per-user temporary folder (honours TMPDIR).
QString temporaryFolder();
// A name no other file in the temporary folder has: prefix + a new UUID + suffix.
QString scratchPath(const QString& prefix, const QString& suffix = {});
// Where this session's sockets and locks go: $XDG_RUNTIME_DIR, else the temporary folder.
QString runtimeFolder();
// runtimeFolder() + "/" + applicationId() + suffix, e.g. ".lock".
QString runtimeFile(const QString& suffix);
}
