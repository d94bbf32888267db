// The floor for per-sample devices: memcpy of an input field to an output of
// the same size, height field (1 channel) or bitmap (3). Run it in the same
// process as the device benchmarks and compare times.

#include <cstring>

#include "BenchFields.h"

namespace {

// args: side, channels
void BM_Copy(benchmark::State& state) {
    const int64_t side = state.range(0);
    const int channels = static_cast<int>(state.range(1));
    const std::vector<float> in = bench::RandomField(side, channels);
    std::vector<float> out(in.size());
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), in.size() * sizeof(float));
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_Copy)
    ->ArgNames({"side", "channels"})
    ->ArgsProduct({{1024, 4096}, {1, 3}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
