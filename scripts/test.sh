#!/usr/bin/env bash
# Builds and runs the test suite.
#   ./scripts/test.sh            release build, every test
#   ./scripts/test.sh --asan     every test under AddressSanitizer and UBSan
#   ./scripts/test.sh --tsan     the threaded tests under ThreadSanitizer
#   ./scripts/test.sh --fuzz     each libFuzzer target for $FUZZ_RUNS runs (clang)
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/deps.sh "${1:-}"
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
  --fuzz)
    cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang \
      -DCMAKE_CXX_COMPILER=clang++ -DBASEKIT64_FUZZ=ON -DBASEKIT64_BUILD_TESTS=OFF >/dev/null
    targets=(network_file saved_state png exr r32)
    cmake --build build-fuzz -j"$jobs" --target "${targets[@]/#/fuzz_}"
    for target in "${targets[@]}"; do
      # New inputs go to the first folder; the seeds stay as they are.
      mkdir -p "build-fuzz/corpus/$target"
      seeds="tests/fuzz/corpus/$target"
      [ "$target" = network_file ] && seeds="examples"
      "build-fuzz/tests/fuzz/fuzz_$target" -runs="${FUZZ_RUNS:-2000}" -max_total_time=120 -max_len=65536 \
        "build-fuzz/corpus/$target" "$seeds"
    done
    ;;
  *)
    echo "usage: $0 [--asan|--tsan|--fuzz]" >&2
    exit 2
    ;;
esac
