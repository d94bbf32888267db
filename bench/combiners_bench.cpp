// Combiner methods and the arithmetic combiner over whole fields on one
// thread: compare with BM_Copy of the same bytes (channels 1 or 3).

#include <cstdint>
#include <vector>

#include "BenchFields.h"
#include "devices/combiners/CombineKernels.h"

namespace {

// args: side, method, channels. The input is restored from `a` outside the
// timing, so every run combines the same values.
void BM_Combine(benchmark::State& state) {
    const int64_t side = state.range(0);
    const auto method = static_cast<int32_t>(state.range(1));
    const int channels = static_cast<int>(state.range(2));
    const std::vector<float> a = bench::RandomField(side, channels, 1);
    const std::vector<float> b = bench::RandomField(side, channels, 2);
    std::vector<float> out = a;
    const basekit::CombinePlane plane{out.data(), b.data(), static_cast<int32_t>(side), channels};
    for (auto _ : state) {
        state.PauseTiming();
        out = a;
        state.ResumeTiming();
        if (channels == 1)
            basekit::CombineHeightRows(plane, method, 0.6f, 0, static_cast<int32_t>(side) - 1);
        else
            basekit::CombineImageRows(plane, method, 0.6f, 0, static_cast<int32_t>(side) - 1);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_Combine)
    ->ArgNames({"side", "method", "channels"})
    ->ArgsProduct({{1024, 4096}, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}, {1}})
    ->ArgsProduct({{1024, 4096}, {0, 7}, {3}})
    ->Unit(benchmark::kMillisecond);

// args: side, operation
void BM_Arithmetic(benchmark::State& state) {
    const int64_t side = state.range(0);
    const auto operation = static_cast<int32_t>(state.range(1));
    const std::vector<float> a = bench::RandomField(side, 1, 1);
    const std::vector<float> b = bench::RandomField(side, 1, 2);
    std::vector<float> out = a;
    const basekit::CombinePlane plane{out.data(), b.data(), static_cast<int32_t>(side), 1};
    for (auto _ : state) {
        state.PauseTiming();
        out = a;
        state.ResumeTiming();
        basekit::ArithmeticRows(plane, operation, 0.4f, 0, static_cast<int32_t>(side) - 1);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_Arithmetic)
    ->ArgNames({"side", "operation"})
    ->ArgsProduct({{1024, 4096}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
