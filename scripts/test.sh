#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test inside a private headless desktop
# (Xvfb, a tray host, PulseAudio with a virtual microphone), which it starts and stops itself.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh test
scripts/build.sh -DBUILD_TESTING=ON -DVOXARIA_BUILD_BENCHMARKS=ON
# One at a time: several tests share the virtual microphone and the X keyboard focus.
scripts/with-harness.sh ctest --test-dir build --output-on-failure --timeout 300 "$@"
