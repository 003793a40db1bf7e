#!/usr/bin/env bash
# Configures and builds; extra arguments are CMake options (scripts/run.sh leaves the tests and
# benchmarks out with them). VOXARIA_BUILD_DIR names another build folder (default ./build) and
# VOXARIA_BUILD_TARGET builds one target instead of everything.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${VOXARIA_BUILD_DIR:-build}
# ccache, when present, makes rebuilds of a fresh clone cheap.
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  export CCACHE_BASEDIR="$PWD"
fi
cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_EXPORT_COMPILE_COMMANDS=ON "${launcher[@]}" "$@" >/dev/null
cmake --build "$build_dir" ${VOXARIA_BUILD_TARGET:+--target "$VOXARIA_BUILD_TARGET"}
