// Constant, gradient and radial fills over whole fields: samples per second
// on one thread.

#include "BenchFields.h"

#include <cstdint>
#include <vector>

#include "devices/generators/CircularGrad.h"
#include "devices/generators/ConstantHeight.h"
#include "devices/generators/GradGen.h"

namespace {

using bench::CountSamples;
using bench::RandomField;

// args: side
void BM_Constant(benchmark::State& state) {
    const int64_t side = state.range(0);
    std::vector<float> out(static_cast<size_t>(side * side));
    for (auto _ : state) {
        basekit::FillConstant(out.data(), out.size(), 0.375f);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}

// args: side, tiling
void BM_Gradient(benchmark::State& state) {
    const int64_t side = state.range(0);
    basekit::GradientSetup s;
    s.width = static_cast<int32_t>(side);
    s.height = static_cast<int32_t>(side);
    s.left = 0.0;
    s.right = 4.0;
    s.top = 0.0;
    s.bottom = 4.0;
    s.direction = 30;
    s.rampWidth = 1.5f;
    s.tiling = static_cast<int32_t>(state.range(1));
    std::vector<float> out(static_cast<size_t>(side * side));
    for (auto _ : state) {
        basekit::FillGradient(s, out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}

// args: side, shape
void BM_Radial(benchmark::State& state) {
    const int64_t side = state.range(0);
    std::vector<double> xs(static_cast<size_t>(side)), ys(static_cast<size_t>(side));
    for (int64_t k = 0; k < side; ++k) {
        xs[static_cast<size_t>(k)] = static_cast<double>(k) / static_cast<double>(side - 1);
        ys[static_cast<size_t>(k)] = xs[static_cast<size_t>(k)];
    }
    basekit::RadialSetup s;
    s.width = static_cast<int32_t>(side);
    s.height = static_cast<int32_t>(side);
    s.columnX = xs.data();
    s.rowY = ys.data();
    s.radius = 0.8f;
    s.shape = static_cast<int32_t>(state.range(1));
    std::vector<float> out(static_cast<size_t>(side * side));
    for (auto _ : state) {
        basekit::FillRadial(s, out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}

BENCHMARK(BM_Constant)->ArgName("side")->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Gradient)
    ->ArgNames({"side", "tiling"})
    ->ArgsProduct({{1024, 4096}, {0, 1, 2}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Radial)
    ->ArgNames({"side", "shape"})
    ->ArgsProduct({{1024, 4096}, {0, 1, 2, 3, 4}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
