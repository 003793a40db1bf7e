#pragma once

#include <QString>

// Where Voxaria keeps its files. Computed at every call: tests and users may move XDG_DATA_HOME.
namespace AppPaths {
// ~/.local/share/Voxaria (the application-support folder).
QString dataFolder();
// dataFolder() + "/models".
QString modelsFolder();
// The per-user temporary folder (honours TMPDIR).
QString temporaryFolder();
}
