#!/usr/bin/env bash
# Builds and runs every benchmark inside the headless harness, printing their figures.
# WhisperModelBench takes minutes: it runs the built whisper-cli with base- and small-sized models,
# which it writes once (640 MB) into build/bench/whisper-models/. Run one alone with
# scripts/with-harness.sh build/bench/<Name>.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh -DBUILD_TESTING=ON -DVOXARIA_BUILD_BENCHMARKS=ON >/dev/null
export QT_LOGGING_RULES="voxaria.*.debug=false"
for bench in build/bench/*Bench; do
  echo "== $(basename "$bench")"
  scripts/with-harness.sh "$bench" 2> >(grep -v '^harness:' >&2)
done
