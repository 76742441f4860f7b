#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# With "fuzz": also clang and its fuzzer and sanitizer runtimes, for the fuzz preset (make fuzz).
set -euo pipefail
pkgs=(cmake make g++ ninja-build pkg-config libmxml-dev libgtest-dev libgmock-dev libbenchmark-dev
      libtomlplusplus-dev nlohmann-json3-dev libcli11-dev g++-mingw-w64-x86-64-posix
      libinih-dev python3 libcairo2-dev fonts-dejavu-core)
[ "${1:-}" = fuzz ] && pkgs+=(clang libclang-rt-14-dev)
missing=()
for p in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "install-deps: installing ${missing[*]}"
sudo=""; [ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
