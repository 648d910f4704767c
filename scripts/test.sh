#!/usr/bin/env bash
# Builds everything and runs every test: the unit and host tests in a normal
# build, the installed SDK with the example projects (examples/*), again under
# AddressSanitizer+UndefinedBehaviorSanitizer and under ThreadSanitizer, then
# each fuzz target for a short run.  The normal build also holds the noise
# tests once per forced processor variant (plain, SSE2, AVX2, AVX-512 where
# present), counted in the closing line like any test.
#
#   scripts/test.sh            everything (what CI runs)
#   scripts/test.sh --quick    the normal build's tests only
#
# Environment: FUZZ_SECONDS (per target, default 30).
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

# The SDK as its users get it: install into a temporary prefix, build every
# examples/* project against that prefix only, render its scenes with the
# installed druxrender and check the passes; SONAMEs; a pkg-config program.
# Each check prints "passed:" or "FAILED:" into install.log.
installed_checks() {
  local prefix work log=$logs/install.checks
  prefix=$(mktemp -d)
  work=$(mktemp -d)
  check() { # description command...
    local what=$1
    shift
    if "$@" >>"$work/out.log" 2>&1; then echo "passed: $what" | tee -a "$log"; else echo "FAILED: $what" | tee -a "$log"; tail -20 "$work/out.log"; fi
  }
  echo "== installed SDK"
  check "install into a temporary prefix" cmake --install build/release --prefix "$prefix"
  for lib in DruxShaderSDK miplatform; do
    check "SONAME of lib$lib is lib$lib.so.1" \
      bash -c "readelf -d '$prefix/lib/lib$lib.so.1.0.0' | grep -q 'SONAME.*\[lib$lib.so.1\]'"
  done
  check "the installed library exports exactly the names of SDK/exported_symbols.txt" bash -c \
    "diff <(nm -D --defined-only '$prefix/lib/libDruxShaderSDK.so.1.0.0' | awk '{print \$3}' | sort) <(grep -v '^#' SDK/exported_symbols.txt | sort)"
  check "the installed library reads no environment variable" bash -c \
    "! nm -D '$prefix/lib/libDruxShaderSDK.so.1.0.0' | grep -Ew 'getenv|secure_getenv'"
  check "druxrender --version" bash -c "'$prefix/bin/druxrender' --version | grep -qx 'druxrender 1.0.0'"
  check "druxmerge --help prints its usage" bash -c "'$prefix/bin/druxmerge' --help | grep -q '^usage: druxmerge'"
  check "installed druxrender --tiles 2 --local writes the single render's render.exr" bash -c \
    "'$prefix/bin/druxrender' --out '$work/single' --resolution 64x48 --samples 2 --quiet --no-progress &&
     '$prefix/bin/druxrender' --out '$work/tiled' --resolution 64x48 --samples 2 --tiles 2 --local --quiet --no-progress &&
     cmp '$work/single/render.exr' '$work/tiled/render.exr'"
  check "druxpasscheck --help prints its usage" bash -c "'$prefix/bin/druxpasscheck' --help | grep -q '^usage: druxpasscheck FILE'"
  cat >"$work/material.cpp" <<'CPP'
#include <DruxMaterial.h>
int main()
{
    const miVector r = drux::reflect(miVector{0.6f, 0, -0.8f}, miVector{0, 0, 1});
    return r.z > 0.79f && r.z < 0.81f ? 0 : 1;
}
CPP
  check "DruxMaterial.h alone compiles with pkg-config --cflags --libs druxshadersdk" bash -c \
    "c++ -std=c++17 -Wall -Wextra -Werror '$work/material.cpp' -o '$work/material' \$(PKG_CONFIG_PATH='$prefix/lib/pkgconfig' pkg-config --cflags --libs druxshadersdk) && LD_LIBRARY_PATH='$prefix/lib' '$work/material'"
  cat >"$work/noise.cpp" <<'CPP'
#include <DruxShaderSDK.h>
#include <cmath>
#include <cstdio>
int main()
{
    const double v = noise_scalar_3d(0.3, 1.7, 2.9);
    std::printf("%.6f\n", v);
    return std::isfinite(v) && v >= -1.0 && v <= 1.0 && v != noise_scalar_3d(5.1, 0.2, 7.4) ? 0 : 1;
}
CPP
  check "a program built with pkg-config --cflags --libs druxshadersdk calls noise_scalar_3d" bash -c \
    "c++ -std=c++17 '$work/noise.cpp' -o '$work/noise' \$(PKG_CONFIG_PATH='$prefix/lib/pkgconfig' pkg-config --cflags --libs druxshadersdk) && LD_LIBRARY_PATH='$prefix/lib' '$work/noise'"
  # The README's walk-through, from an empty folder: its CMakeLists.txt, my.cpp
  # and my.scene blocks, built, rendered and checked as the README says.
  local rd=$work/readme
  mkdir -p "$rd"
  awk -v dir="$rd" '
    /^## Writing a shader library/ { on = 1; next }
    /^### The pass contract/ { on = 0 }
    !on { next }
    /^ *```cmake/ { f = dir "/CMakeLists.txt"; next }
    /^ *```cpp/ { f = dir "/my.cpp"; next }
    /^ *```$/ && f == "" && !sh { f = dir "/my.scene"; next }
    /^ *```sh/ { sh = 1; next }
    /^ *```/ { f = ""; sh = 0; next }
    f != "" { sub(/^   /, ""); print > f }
  ' README.md
  check "README walk-through: my.cpp builds against the prefix" bash -c \
    "cmake -G Ninja -S '$rd' -B '$rd/build' -DCMAKE_PREFIX_PATH='$prefix' >/dev/null && cmake --build '$rd/build'"
  check "README walk-through: my.scene renders and druxpasscheck passes" bash -c \
    "cd '$rd' && '$prefix/bin/druxrender' --scene build/my.scene --out out --quiet --no-progress && '$prefix/bin/druxpasscheck' out/render.exr --nonempty mine --sum beauty=diffuse+specular+background"
  for ex in examples/*/; do
    local name src bld
    name=$(basename "$ex")
    src=$work/src/$name
    bld=$work/build/$name
    mkdir -p "$work/src" && cp -r "$ex" "$src"
    check "example $name configures and builds against the prefix" bash -c \
      "cmake -G Ninja -S '$src' -B '$bld' -DCMAKE_PREFIX_PATH='$prefix' -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null && cmake --build '$bld' -j '$(nproc)'"
    for scene in "$bld"/*.scene; do
      [ -f "$scene" ] || continue
      local sn out args beauty additive
      sn=$(basename "$scene" .scene)
      out=$work/out/$name/$sn
      mkdir -p "$out"
      check "example $name renders $sn.scene with the installed druxrender" \
        "$prefix/bin/druxrender" --scene "$scene" --out "$out" --no-progress --quiet
      args=()
      beauty=$(awk '$1 == "pass" && $3 == "beauty" {print $2; exit}' "$scene")
      additive=$(awk '$1 == "pass" && ($3 == "diffuse" || $3 == "specular" || $3 == "reflection" || $3 == "refraction" || $3 == "indirect" || $3 == "scatter" || $3 == "background") {print $2}' "$scene" | paste -sd+)
      for p in $(awk '$1 == "pass" && $3 == "custom" {print $2}' "$scene"); do args+=(--nonempty "$p"); done
      [ -n "$beauty" ] && [ -n "$additive" ] && args+=(--sum "$beauty=$additive")
      check "example $name: $sn passes (custom passes filled, additive passes sum to beauty)" \
        "$prefix/bin/druxpasscheck" "$out/render.exr" "${args[@]}"
    done
  done
  rm -rf "$prefix" "$work"
}

status=0
suite release build/release || status=1
installed_checks
if [ $quick -eq 0 ]; then
  suite asan build/asan -DDRUX_ASAN=ON || status=1
  suite tsan build/tsan -DDRUX_TSAN=ON || status=1
  fuzz_failed=0
  bash scripts/fuzz.sh "${FUZZ_SECONDS:-30}" || { status=1; fuzz_failed=1; }
fi

# One closing line over every configuration.
passed=0
failed=0
for f in "$logs"/*.log; do
  [ -f "$f" ] || continue
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
if [ -f "$logs/install.checks" ]; then
  passed=$((passed + $(grep -c '^passed:' "$logs/install.checks" || true)))
  failed=$((failed + $(grep -c '^FAILED:' "$logs/install.checks" || true)))
fi
[ $failed -gt 0 ] && status=1
echo "tests: $passed passed, $failed failed"
exit $status
