#!/usr/bin/env bash
# Builds and runs the test suite.
#   ./scripts/test.sh            release build, every test
#   ./scripts/test.sh --asan     every test under AddressSanitizer and UBSan
#   ./scripts/test.sh --tsan     the threaded tests under ThreadSanitizer
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/deps.sh
jobs="$(nproc)"
case "${1:-}" in
  "")
    cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DBASEKIT64_BUILD_TESTS=ON >/dev/null
    cmake --build build -j"$jobs"
    ctest --test-dir build --output-on-failure -j"$jobs"
    ./scripts/page-test.sh build
    ;;
  --asan)
    cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBASEKIT64_BUILD_TESTS=ON \
      -DBASEKIT64_SANITIZE=address,undefined >/dev/null
    cmake --build build-asan -j"$jobs"
    ctest --test-dir build-asan --output-on-failure -j"$jobs"
    ;;
  --tsan)
    cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBASEKIT64_BUILD_TESTS=ON \
      -DBASEKIT64_SANITIZE=thread >/dev/null
    cmake --build build-tsan -j"$jobs"
    # Threads are exercised by the tests whose names say so.
    ctest --test-dir build-tsan --output-on-failure -j"$jobs" -R 'Thread|Worker|Parallel'
    ;;
  *)
    echo "usage: $0 [--asan|--tsan]" >&2
    exit 2
    ;;
esac
