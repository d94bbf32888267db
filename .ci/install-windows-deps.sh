#!/usr/bin/env bash
# Installs what the Windows cross build and its Wine test run need:
# MinGW-w64 (posix threads), the 64-bit Wine loader, GoogleTest sources, the
# header-only JSON and command-line libraries, and a native C++ compiler for
# the build's own tools.
# Quick no-op when everything is already there.
set -euo pipefail

packages=(g++-mingw-w64-x86-64-posix wine64 googletest cmake g++ nlohmann-json3-dev libcli11-dev)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if ((${#missing[@]})); then
  sudo=""
  if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  # Only refresh the lists when an install fails on stale or empty ones.
  if ! $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"; then
    $sudo apt-get update -q
    $sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
  fi
fi

# Sanity: the pieces the toolchain file and wine wrapper rely on.
command -v x86_64-w64-mingw32-g++-posix >/dev/null
[ -f /usr/src/googletest/CMakeLists.txt ]
loader=""
for f in /usr/lib/wine/wine64 /usr/lib/x86_64-linux-gnu/wine/wine64 /usr/bin/wine64; do
  if [ -x "$f" ]; then loader="$f"; break; fi
done
[ -n "$loader" ] || { echo "wine64 loader not found" >&2; exit 1; }
echo "windows deps ok: $(x86_64-w64-mingw32-g++-posix -dumpversion), $("$loader" --version 2>/dev/null || echo wine)"
