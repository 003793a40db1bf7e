#!/usr/bin/env bash
# Configures and builds everything (app, tests, benchmarks) into ./build.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build
