#!/usr/bin/env bash
# Renders the default scene small and checks that its EXR opens in the
# OpenEXR and OpenImageIO command-line tools with the ID mattes in place:
# the CryptoObject and CryptoMaterial layers and, per matte, the header
# attributes name, hash, conversion and manifest; and that the contact sheet
# was written.  Run by ctest.
#
#   scripts/check_exr.sh PATH/TO/druxrender
set -euo pipefail
render=$1
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
fail() { echo "check_exr: $*" >&2; exit 1; }
for tool in exrheader oiiotool; do
  command -v "$tool" >/dev/null || fail "$tool is not installed (scripts/setup.sh installs it)"
done
"$render" --out "$out" --resolution 64x48 --samples 2 --threads 2 --no-progress --quiet
exr=$out/render.exr
[ -s "$out/contact.png" ] || fail "no contact sheet written"
header=$(exrheader "$exr") || fail "exrheader cannot read $exr"
info=$(oiiotool --info -v "$exr") || fail "oiiotool cannot read $exr"
for type in CryptoObject CryptoMaterial; do
  key=$(echo "$header" | sed -nE "s|^cryptomatte/([0-9a-f]{1,7})/name \(type string\): \"$type\"$|\1|p")
  [ -n "$key" ] || fail "exrheader: no cryptomatte/<key>/name \"$type\""
  grep -q "^cryptomatte/$key/hash (type string): \"MurmurHash3_32\"$" <<<"$header" || fail "$type: hash"
  grep -q "^cryptomatte/$key/conversion (type string): \"uint32_to_float32\"$" <<<"$header" || fail "$type: conversion"
  grep -qE "^cryptomatte/$key/manifest \(type string\): \"\{\".+\":\"[0-9a-f]{8}\"" <<<"$header" || fail "$type: manifest"
  grep -q "cryptomatte/$key/name: \"$type\"" <<<"$info" || fail "oiiotool: no $type attribute"
  for layer in 00 01 02; do
    for c in R G B A; do
      grep -q "$type$layer\.$c" <<<"$info" || fail "oiiotool: no channel $type$layer.$c"
    done
  done
done
echo "check_exr: the ID mattes of $exr are readable"
