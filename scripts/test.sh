#!/usr/bin/env bash
# Installs what is missing, checks the formatting, builds with warnings as errors, lints the files
# the last commit changed, runs every test inside a private headless desktop (Xvfb, a tray host,
# PulseAudio with a virtual microphone, sway), which it starts and stops itself, then runs them all
# again built with AddressSanitizer and UndefinedBehaviorSanitizer, and the threaded ones built with
# ThreadSanitizer. Extra arguments go to the main ctest run (e.g. -R Name, -L unit).
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
scripts/lint.sh --changed
# One at a time: several tests share the virtual microphone and the X keyboard focus.
scripts/with-harness.sh ctest --test-dir build --output-on-failure --timeout 300 "$@"
# ctest counts a program whose tests were partly skipped as passed: each skip says why here. In CI
# (CI=true) a skip is a failure, shown above with its reason.
show_skips() { grep -h -A1 ': Skipped$' "$1/Testing/Temporary/LastTest.log" | grep -v -e ': Skipped$' -e '^--$' | sed 's/^/skipped: /' || true; }
show_skips build
# The sanitizer builds link the transcribe.cpp and run the whisper-cli the build above made: neither is
# instrumented (a library we only call, a child process), and building them again would double the run.
# They build without -Werror: GCC's bounds analysis sees through the sanitizers' instrumentation into
# false alarms (an empty QByteArray's data read as a one-byte array); the warnings build is the gate.
sanitizer_build() {
  VOXARIA_BUILD_DIR=$1 VOXARIA_BUILD_TARGET=$2 scripts/build.sh -DBUILD_TESTING=ON -DVOXARIA_BUILD_BENCHMARKS=OFF "$3" \
    -DVOXARIA_WHISPER_CLI_FROM="$PWD/build" -DVOXARIA_TRANSCRIBE_PREFIX="$PWD/build/_deps/transcribe.cpp/install"
}
supp="$PWD/tests/sanitizer"
# Left out of both sanitizer runs: the 20 MB clipboard test, since slowed down that much the snapshot
# rightly gives up its read after 1.5 s, and the main-thread stall test, which times the program and
# not the sanitizers' own slowdown. Both run in the build above.
export GTEST_FILTER=-TextInserterOnX11Test.AClipboardTooLargeForOneRequestComesBackWhole
echo "every test again, built with AddressSanitizer and UndefinedBehaviorSanitizer"
sanitizer_build build-sanitize all -DVOXARIA_SANITIZE=ON
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 LSAN_OPTIONS=suppressions="$supp/lsan.supp":print_suppressions=0 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:suppressions="$supp/ubsan.supp" \
  scripts/with-harness.sh ctest --test-dir build-sanitize -LE package -E '^MainThreadStallTests$' --output-on-failure --timeout 600
show_skips build-sanitize
echo "the threaded tests again, built with ThreadSanitizer"
sanitizer_build build-tsan thread_tests -DVOXARIA_SANITIZE_THREAD=ON
# ThreadSanitizer by default kills a forked child of a threaded program that starts a thread before
# its exec (the live engine's and media job's tests start such children); die_after_fork=0 lets it run.
# Left out for now: the Wayland tests wait at most seconds for the program they start, which under
# ThreadSanitizer starts slower than that.
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:die_after_fork=0:ignore_noninstrumented_modules=1:suppressions="$supp/tsan.supp" \
  scripts/with-harness.sh ctest --test-dir build-tsan -L threads -E '^WaylandTests$' --output-on-failure --timeout 600
show_skips build-tsan
left=$(LC_ALL=C comm -13 <(echo "$before") <(work_tree_changes))
if [ -n "$left" ]; then
  echo "the run changed or left files in the work tree:" >&2
  echo "$left" >&2
  exit 1
fi
