#!/usr/bin/env bash
# Builds the unit tests under ASan+UBSan and under TSan (separate build
# directories) and runs them.
#
#   scripts/sanitize.sh [asan|tsan|all]      (default: all)
#
# Any sanitizer report fails the test that produced it, and so the script.
# Environment: SANITIZE_JOBS (parallel build jobs and test processes).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

which=${1:-all}
jobs=${SANITIZE_JOBS:-$(nproc)}

run() {
  local name=$1 option=$2 build=build/$1
  echo "== $name: build"
  cmake -G Ninja -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -D"$option"=ON >/dev/null
  cmake --build "$build" -j "$jobs"
  echo "== $name: tests"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir "$build" -j "$jobs" --output-on-failure
}

case "$which" in
  asan) run asan DRUX_ASAN ;;
  tsan) run tsan DRUX_TSAN ;;
  all) run asan DRUX_ASAN; run tsan DRUX_TSAN ;;
  *) echo "usage: scripts/sanitize.sh [asan|tsan|all]" >&2; exit 2 ;;
esac
