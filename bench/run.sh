#!/usr/bin/env bash
# Builds and runs every benchmark inside the headless harness, printing their figures.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh -DBUILD_TESTING=ON -DVOXARIA_BUILD_BENCHMARKS=ON >/dev/null
export QT_LOGGING_RULES="voxaria.*.debug=false"
for bench in build/bench/*Bench; do
  echo "== $(basename "$bench")"
  scripts/with-harness.sh "$bench" 2> >(grep -v '^harness:' >&2)
done
