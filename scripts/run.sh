#!/usr/bin/env bash
# Installs what building and running Voxaria needs (nothing of the test stack), builds the program
# alone, and starts it in the tray of the current desktop.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh run
scripts/build.sh -DBUILD_TESTING=OFF -DVOXARIA_BUILD_BENCHMARKS=OFF
exec build/bin/voxaria "$@"
