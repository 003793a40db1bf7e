#!/usr/bin/env bash
# Installs what is missing, checks the formatting, builds with warnings as errors, runs every test
# inside a private headless desktop (Xvfb, a tray host, PulseAudio with a virtual microphone, sway),
# which it starts and stops itself, and then runs the unit tests again built with AddressSanitizer
# and UndefinedBehaviorSanitizer. Extra arguments go to the main ctest run (e.g. -R Name, -L unit).
# A run that leaves files in the work tree fails, naming them: tests write into their own folders.
set -euo pipefail
cd "$(dirname "$0")/.."
# What differs from the last commit before the run (a developer's own edits) is not the run's doing.
work_tree_changes() { git status --porcelain --untracked-files=all 2>/dev/null | LC_ALL=C sort; }
before=$(work_tree_changes)
scripts/install-deps.sh test
scripts/check-format.sh
echo "build with warnings as errors (-Wall -Wextra -Wshadow -Werror)"
scripts/build.sh -DBUILD_TESTING=ON -DVOXARIA_BUILD_BENCHMARKS=ON -DVOXARIA_WERROR=ON
echo "build clean: no warnings"
# One at a time: several tests share the virtual microphone and the X keyboard focus.
scripts/with-harness.sh ctest --test-dir build --output-on-failure --timeout 300 "$@"
# ctest counts a program whose tests were partly skipped as passed: each skip says why here. In CI
# (CI=true) a skip is a failure, shown above with its reason.
grep -h -A1 ': Skipped$' build/Testing/Temporary/LastTest.log | grep -v -e ': Skipped$' -e '^--$' | sed 's/^/skipped: /' || true
echo "sanitizer build of the unit tests (address, undefined behaviour)"
# Without -Werror: GCC's bounds analysis sees through the sanitizers' instrumentation into false
# alarms (an empty QByteArray's data read as a one-byte array); the warnings build above is the gate.
# transcribe.cpp is never instrumented: the sanitizer build links the copy the build above made.
VOXARIA_BUILD_DIR=build-sanitize VOXARIA_BUILD_TARGET=unit_tests \
  scripts/build.sh -DBUILD_TESTING=ON -DVOXARIA_BUILD_BENCHMARKS=OFF -DVOXARIA_BUILD_WHISPER_CLI=OFF -DVOXARIA_SANITIZE=ON \
  -DVOXARIA_TRANSCRIBE_PREFIX="$PWD/build/_deps/transcribe.cpp/install"
supp="$PWD/tests/sanitizer"
# This build leaves whisper-cli out on purpose; the run above has it and runs the tests that start it.
GTEST_FILTER=-WhisperCliVad.*:WhisperDevice.TheBundledWhisperCli* ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 LSAN_OPTIONS=suppressions="$supp/lsan.supp":print_suppressions=0 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:suppressions="$supp/ubsan.supp" \
  ctest --test-dir build-sanitize -L unit --output-on-failure --timeout 300
left=$(LC_ALL=C comm -13 <(echo "$before") <(work_tree_changes))
if [ -n "$left" ]; then
  echo "the run changed or left files in the work tree:" >&2
  echo "$left" >&2
  exit 1
fi
