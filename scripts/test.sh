#!/usr/bin/env bash
# Builds everything and runs every test.  Usage: scripts/test.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
build=${1:-build/release}
cmake -G Ninja -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" -j "$(nproc)" --output-on-failure
