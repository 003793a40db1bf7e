#!/usr/bin/env bash
# Fails when a C++ file under Sources/, tests/ or bench/ differs from .clang-format; with --fix,
# formats them in place.
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files 'Sources/*.cpp' 'Sources/*.h' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp' 'bench/*.h')
if [ "${1:-}" = --fix ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
clang-format --dry-run --Werror "${files[@]}"
echo "format check: ${#files[@]} files match .clang-format"
