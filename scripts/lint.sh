#!/usr/bin/env bash
# Runs clang-tidy (the checks in .clang-tidy) over every source file under Sources/, using the
# compile commands of ./build (scripts/build.sh writes them). Extra arguments name files instead.
set -euo pipefail
cd "$(dirname "$0")/.."
[ -f build/compile_commands.json ] || { echo "build first: scripts/build.sh" >&2; exit 2; }
if [ $# -gt 0 ]; then
  files=("$@")
else
  mapfile -t files < <(git ls-files 'Sources/*.cpp')
fi
printf '%s\n' "${files[@]}" | xargs -P "$(nproc)" -n 4 clang-tidy -p build --quiet 2>/dev/null
echo "clang-tidy: ${#files[@]} files clean"
