#!/usr/bin/env bash
# Builds everything and runs every test: the unit and host tests in a normal
# build, again under AddressSanitizer+UndefinedBehaviorSanitizer and under
# ThreadSanitizer, then each fuzz target for a short run.  The normal build
# also holds the noise tests once per forced processor variant (plain, SSE2,
# AVX2, AVX-512 where present), counted in the closing line like any test.
#
#   scripts/test.sh            everything (what CI runs)
#   scripts/test.sh --quick    the normal build's tests only
#
# Environment: FUZZ_SECONDS (per target, default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

quick=0
[ "${1:-}" = "--quick" ] && quick=1
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT

suite() { # name build-dir cmake-options...
  local name=$1 build=$2
  shift 2
  echo "== $name"
  cmake -G Ninja -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null || return 1
  cmake --build "$build" -j "$(nproc)" || return 1
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1:detect_stack_use_after_return=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir "$build" -j "$(nproc)" --output-on-failure | tee "$logs/$name.log"
}

status=0
suite release build/release || status=1
if [ $quick -eq 0 ]; then
  suite asan build/asan -DDRUX_ASAN=ON || status=1
  suite tsan build/tsan -DDRUX_TSAN=ON || status=1
  fuzz_failed=0
  bash scripts/fuzz.sh "${FUZZ_SECONDS:-60}" || { status=1; fuzz_failed=1; }
fi

# One closing line over every configuration.
passed=0
failed=0
for f in "$logs"/*.log; do
  line=$(grep -E 'tests passed, [0-9]+ tests failed out of [0-9]+' "$f" | tail -1 || true)
  if [ -z "$line" ]; then
    failed=$((failed + 1))
    continue
  fi
  total=$(echo "$line" | sed -E 's/.* out of ([0-9]+).*/\1/')
  bad=$(echo "$line" | sed -E 's/.*tests passed, ([0-9]+) tests failed.*/\1/')
  passed=$((passed + total - bad))
  failed=$((failed + bad))
done
failed=$((failed + ${fuzz_failed:-0}))
[ $failed -gt 0 ] && status=1
echo "tests: $passed passed, $failed failed"
exit $status
