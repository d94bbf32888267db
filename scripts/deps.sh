#!/usr/bin/env bash
# Installs the Debian packages the build needs; quick when they are there.
set -euo pipefail
packages=(cmake g++ make pkg-config libgtest-dev googletest libbenchmark-dev libpng-dev
          libopenexr-dev nlohmann-json3-dev libcli11-dev zlib1g-dev)
# The fuzz targets need clang and its libFuzzer runtime.
[ "${1:-}" = --fuzz ] && packages+=(clang libclang-rt-14-dev)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi
