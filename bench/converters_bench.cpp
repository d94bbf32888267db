// The converters' kernels over whole fields on one thread, to compare with
// BM_Copy of the bytes they write: a bitmap (channels 3) for Colorize, the
// normal map and the channel combiner, three height fields (channels 3) for
// the splitter.

#include <cstdint>
#include <vector>

#include "BenchFields.h"
#include "devices/converters/ColourKernels.h"

namespace {

using bench::CountSamples;
using bench::RandomField;

int32_t LastRow(int64_t side) {
    return static_cast<int32_t>(side - 1);
}

// args: side
void BM_Colorize(benchmark::State& state) {
    const int64_t side = state.range(0);
    const std::vector<float> heights = RandomField(side);
    std::vector<float> rgb(heights.size() * 3);
    const float low[3] = {0.1f, 0.2f, 0.05f}, high[3] = {0.9f, 0.7f, 1.0f};
    for (auto _ : state) {
        basekit::ColourRampRows(heights.data(), static_cast<int32_t>(side), 0, LastRow(side), low,
                                high, rgb.data());
        benchmark::DoNotOptimize(rgb.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}

// args: side
void BM_NormalMap(benchmark::State& state) {
    const int64_t side = state.range(0);
    const std::vector<float> heights = RandomField(side);
    std::vector<float> rgb(heights.size() * 3);
    basekit::NormalSetup setup{heights.data(), {}, -1.0f, -1.0f};
    setup.grid.width = static_cast<int32_t>(side);
    setup.grid.height = static_cast<int32_t>(side);
    setup.grid.x1 = 4.0;
    setup.grid.verticalScale = 0.5;
    for (auto _ : state) {
        basekit::NormalRows(setup, 0, LastRow(side), rgb.data());
        benchmark::DoNotOptimize(rgb.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}

// args: side, hsb
void BM_ChannelCombine(benchmark::State& state) {
    const int64_t side = state.range(0);
    const std::vector<float> a = RandomField(side, 1, 1), b = RandomField(side, 1, 2),
                             c = RandomField(side, 1, 3);
    const float* const channels[3] = {a.data(), b.data(), c.data()};
    std::vector<float> rgb(a.size() * 3);
    for (auto _ : state) {
        basekit::CombineChannelRows(channels, static_cast<int32_t>(side), 0, LastRow(side),
                                    state.range(1) != 0, rgb.data());
        benchmark::DoNotOptimize(rgb.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}

// args: side, hsb
void BM_ChannelSplit(benchmark::State& state) {
    const int64_t side = state.range(0);
    const std::vector<float> rgb = RandomField(side, 3);
    std::vector<float> a(rgb.size() / 3), b(a.size()), c(a.size());
    float* const channels[3] = {a.data(), b.data(), c.data()};
    for (auto _ : state) {
        basekit::SplitChannelRows(rgb.data(), static_cast<int32_t>(side), 0, LastRow(side),
                                  state.range(1) != 0, channels);
        benchmark::DoNotOptimize(a.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}

BENCHMARK(BM_Colorize)->ArgName("side")->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NormalMap)->ArgName("side")->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChannelCombine)
    ->ArgNames({"side", "hsb"})
    ->ArgsProduct({{1024, 4096}, {0, 1}})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ChannelSplit)
    ->ArgNames({"side", "hsb"})
    ->ArgsProduct({{1024, 4096}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
