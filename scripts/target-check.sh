#!/usr/bin/env bash
# The target gate: every device source must compile as C++03, without exceptions and RTTI, against
# the Windows headers (16-bit wchar_t). CE-only declarations come from src/sal/winapi.h.
set -euo pipefail
cd "$(dirname "$0")/.."
cxx=x86_64-w64-mingw32-g++
command -v $cxx >/dev/null || { echo "target-check: $cxx not found (run scripts/install-deps.sh)" >&2; exit 1; }
inc=build/target-include
mkdir -p "$inc"
cp /usr/include/mxml.h "$inc/"
# the key header, generated from the same setting the build uses
key=$(sed -n 's/^set(TARSK_PACKAGE_KEY "\([0-9A-Fa-f]*\)".*/\1/p' cmake/package_key.cmake)
sed -e "s/@TARSK_KEY_K0@/${key:0:8}/" -e "s/@TARSK_KEY_K1@/${key:8:8}/" \
    -e "s/@TARSK_KEY_K2@/${key:16:8}/" -e "s/@TARSK_KEY_K3@/${key:24:8}/" \
    -e "s/@TARSK_PACKAGE_KEY@/$key/" cmake/tarsk_key.h.in > "$inc/tarsk_key.h"
# One compiler per core; every source is checked, and any failure fails the gate.
n=$(find src -name '*.cpp' | wc -l)
if ! find src -name '*.cpp' -print0 | sort -z | xargs -0 -n 1 -P "$(nproc)" \
      $cxx -std=c++03 -fno-exceptions -fno-rtti -fsyntax-only -Wall -Wno-unknown-pragmas \
      -DUNICODE -D_UNICODE -Isrc -I"$inc"; then
  echo "target-check: FAILED"; exit 1
fi
echo "target-check: $n device sources compile as C++03 for the target"
