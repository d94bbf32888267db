// Inverter, Flipper and Displacement kernels over square fields, one thread;
// compare each with BM_Copy of the same side and channels.

#include <cstdint>
#include <cstring>
#include <vector>

#include "BenchFields.h"
#include "devices/filters/Displacement.h"
#include "devices/filters/Flipper.h"
#include "devices/filters/Inverter.h"

namespace {

using bench::CountSamples;
using bench::RandomField;

// args: side, channels. In place, as the device works on its private copy.
void BM_Invert(benchmark::State& state) {
    const int64_t side = state.range(0);
    const int channels = static_cast<int>(state.range(1));
    std::vector<float> field = RandomField(side, channels);
    for (auto _ : state) {
        basekit::InvertSamples(field.data(), field.size());
        benchmark::DoNotOptimize(field.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}
BENCHMARK(BM_Invert)
    ->ArgNames({"side", "channels"})
    ->ArgsProduct({{1024, 4096}, {1, 3}})
    ->Unit(benchmark::kMillisecond);

// args: side, channels, mode (1 horizontal, 2 vertical, 3 both)
void BM_Flip(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    const int channels = static_cast<int>(state.range(1));
    const int mode = static_cast<int>(state.range(2));
    const std::vector<float> in = RandomField(side, channels);
    std::vector<float> out(in.size());
    const basekit::FlipPlane plane{in.data(), out.data(), side, side, channels};
    for (auto _ : state) {
        basekit::FlipRows(plane, mode & 1, mode & 2, 0, side - 1);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}
BENCHMARK(BM_Flip)
    ->ArgNames({"side", "channels", "mode"})
    ->ArgsProduct({{1024, 4096}, {1, 3}, {1, 2, 3}})
    ->Unit(benchmark::kMillisecond);

// args: side, edge (0 repeat, 1 mirror). Centred, strength 1 at 256 samples
// per world unit, 30 degrees: shifts of up to 128 samples, many past the border.
void BM_Displace(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    const auto edge = static_cast<int32_t>(state.range(1));
    const std::vector<float> primary = RandomField(side, 1, 1);
    const std::vector<float> amount = RandomField(side, 1, 2);
    std::vector<float> out(primary.size());
    const basekit::DisplacePlane plane{primary.data(), amount.data(), out.data(), side, side, side};
    const basekit::DisplaceShift shift = basekit::MakeDisplaceShift(30, 1.0f, true, edge, 256.0);
    for (auto _ : state) {
        basekit::DisplaceRows(plane, shift, 0, side - 1);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}
BENCHMARK(BM_Displace)
    ->ArgNames({"side", "edge"})
    ->ArgsProduct({{1024, 4096}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
