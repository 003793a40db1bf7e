#!/usr/bin/env bash
# Configures and builds into ./build; extra arguments are CMake options (scripts/run.sh leaves the
# tests and benchmarks out with them).
set -euo pipefail
cd "$(dirname "$0")/.."
# ccache, when present, makes rebuilds of a fresh clone cheap.
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  export CCACHE_BASEDIR="$PWD"
fi
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" "$@" >/dev/null
cmake --build build
