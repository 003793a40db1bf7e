#!/usr/bin/env bash
# Installs what is missing, builds, and starts Voxaria in the tray of the current desktop.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
scripts/build.sh
exec build/bin/voxaria "$@"
