#!/usr/bin/env bash
# Installs the Debian packages the build needs; quick when they are there.
set -euo pipefail
cd "$(dirname "$0")/.."
packages=(cmake g++ make pkg-config libgtest-dev googletest libbenchmark-dev libpng-dev
          libopenexr-dev libtiff-dev libgeotiff-dev nlohmann-json3-dev libcli11-dev zlib1g-dev
          libcpp-httplib-dev chromium)
# Node.js from elsewhere (with its own npm) will do.
command -v node >/dev/null || packages+=(nodejs)
command -v npm >/dev/null || packages+=(npm)
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
# three.js for the page and playwright-core for its browser tests, as the
# lock file pins them.
if [ ! -f web/node_modules/.package-lock.json ] || ! cmp -s web/package-lock.json web/node_modules/.package-lock.json.copy; then
  (cd web && npm ci --no-audit --no-fund --loglevel=error && cp package-lock.json node_modules/.package-lock.json.copy)
fi
