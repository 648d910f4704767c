#!/usr/bin/env bash
# Builds the reference host renderer and renders the default scene into out/.
# Extra arguments go to the renderer (see druxrender --help).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
build=build/release
cmake -G Ninja -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j "$(nproc)" --target druxrender
mkdir -p out
"$build/host/druxrender" --out out "$@"
