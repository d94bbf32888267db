#!/usr/bin/env bash
# Builds the module, the host and orogen, then builds the demo network into out/.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DBASEKIT64_BUILD_TESTS=OFF >/dev/null
cmake --build build -j"$(nproc)" --target orogen BaseKit64
./build/cli/orogen "$@"
