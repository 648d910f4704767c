#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, with ASan and UBSan on the library and
# the runtime) and runs each for a while on its seed corpus.
#
#   scripts/fuzz.sh [seconds-per-target] [target ...]
#
# Seconds default to 60; targets default to every fuzz/*_fuzz.cpp (name
# without _fuzz, e.g. "fbuf").  New inputs go to build/fuzz/corpus/<target>
# (the seeds in fuzz/corpus/<target> are only read); a crash, sanitizer
# report, leak or failed check leaves its input in build/fuzz/artifacts/ and
# makes the script fail.  Environment: FUZZ_BUILD (build directory),
# FUZZ_JOBS (parallel build jobs).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

seconds=${1:-60}
shift || true
build=${FUZZ_BUILD:-build/fuzz}
jobs=${FUZZ_JOBS:-$(nproc)}

CC=clang CXX=clang++ cmake -G Ninja -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDRUX_FUZZ=ON \
  -DDRUX_BUILD_BENCH=OFF -DDRUX_BUILD_HOST=OFF >/dev/null
cmake --build "$build" -j "$jobs" --target fuzz

targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for src in fuzz/*_fuzz.cpp; do
    name=$(basename "$src" .cpp)
    targets+=("${name%_fuzz}")
  done
fi

mkdir -p "$build/artifacts" "$build/logs"
failed=()
for t in "${targets[@]}"; do
  work="$build/corpus/$t"
  mkdir -p "$work" "fuzz/corpus/$t"
  log="$build/logs/$t.log"
  echo "== fuzz $t: ${seconds}s"
  if "$build/fuzz/${t}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$t-" "$work" "fuzz/corpus/$t" >"$log" 2>&1; then
    grep -E '^#[0-9]+[[:space:]]+DONE' "$log" | tail -1 || true
    grep -E '^stat::(number_of_executed_units|average_exec_per_sec)' "$log" || true
  else
    echo "!! $t failed; last lines of $log:"
    tail -40 "$log"
    failed+=("$t")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: targets with findings: ${failed[*]} (inputs in $build/artifacts)"
  exit 1
fi
echo "fuzz: all ${#targets[@]} targets ran ${seconds}s each without a finding"
