#!/usr/bin/env bash
# Runs clang-tidy (the checks in .clang-tidy) over the source files under Sources/, using the compile
# commands of ./build (scripts/build.sh writes them). With no argument it checks every file; with
# --changed [BASE] only the files the commits after BASE touched (a header stands for the source file of
# its name), BASE being by default the first parent of HEAD: the files the last commit, or the whole
# branch of the last merge, changed. That is what CI checks in a fresh clone, which knows no earlier
# run: all of Sources/ takes a quarter of an hour on two cores. Other arguments name files to check.
set -euo pipefail
cd "$(dirname "$0")/.."
[ -f build/compile_commands.json ] || { echo "build first: scripts/build.sh" >&2; exit 2; }
if [ "${1:-}" = --changed ]; then
  base=${2:-HEAD^}
  mapfile -t files < <(git diff --name-only --diff-filter=d "$base" HEAD -- 'Sources/*.cpp' 'Sources/*.h' |
    sed 's/\.h$/.cpp/' | sort -u | while read -r file; do [ -f "$file" ] && echo "$file"; done)
elif [ $# -gt 0 ]; then
  files=("$@")
else
  mapfile -t files < <(git ls-files 'Sources/*.cpp')
fi
if [ ${#files[@]} -gt 0 ]; then
  printf '%s\n' "${files[@]}" | xargs -P "$(nproc)" -n 4 clang-tidy -p build --quiet 2>/dev/null
fi
echo "clang-tidy: ${#files[@]} files clean"
