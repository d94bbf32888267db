// Height Chooser, Select Color, Splat Converter and Overlay View kernels on
// one thread, to set beside BM_Copy of the same sizes (copy_bench.cpp): a
// height-field copy for the two masks, a bitmap copy for the splat map and
// the view.

#include "BenchFields.h"
#include "devices/combiners/HeightCombiner.h"
#include "devices/converters/SplatMaker.h"
#include "devices/output/OverlayOutput.h"
#include "devices/selectors/SelectColor.h"

namespace {

Orogen::Grid SquareGrid(int64_t side) {
    Orogen::Grid grid;
    grid.width = grid.height = static_cast<int32_t>(side);
    grid.x1 = grid.y1 = 4.0;
    grid.verticalScale = 0.5;
    return grid;
}

// args: side, keep, transition × 1000
void BM_HeightChooser(benchmark::State& state) {
    const int64_t side = state.range(0);
    const std::vector<float> a = bench::RandomField(side, 1, 1), b = bench::RandomField(side, 1, 2);
    std::vector<float> out = a, mask(a.size());
    const float transition = static_cast<float>(state.range(2)) / 1000.0f;
    for (auto _ : state) {
        // In place, as a build works on its private copy; later runs see
        // heights chosen before, still in 0..1.
        basekit::ChooseHeights(out.data(), b.data(), mask.data(), 0, out.size(),
                               static_cast<int32_t>(state.range(1)), transition);
        benchmark::DoNotOptimize(mask.data());
        benchmark::ClobberMemory();
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_HeightChooser)
    ->ArgNames({"side", "keep", "k"})
    ->ArgsProduct({{1024, 4096}, {0}, {0, 100}})
    ->Unit(benchmark::kMillisecond);

// args: side, channels of the input
void BM_SelectColor(benchmark::State& state) {
    const int64_t side = state.range(0);
    const int channels = static_cast<int>(state.range(1));
    const std::vector<float> image = bench::RandomField(side, channels);
    std::vector<float> mask(static_cast<size_t>(side * side));
    const float colour[3] = {0.5f, 0.4f, 0.3f};
    for (auto _ : state) {
        basekit::SelectColourMask(image.data(), channels, 0, mask.size(), colour, 0.1f, 0.1f,
                                  mask.data());
        benchmark::DoNotOptimize(mask.data());
        benchmark::ClobberMemory();
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_SelectColor)
    ->ArgNames({"side", "channels"})
    ->ArgsProduct({{1024, 4096}, {1, 3}})
    ->Unit(benchmark::kMillisecond);

void BM_Splat(benchmark::State& state) {
    const int64_t side = state.range(0);
    const std::vector<float> heights = bench::RandomField(side);
    std::vector<float> rgb(heights.size() * 3);
    const basekit::SplatSetup setup{heights.data(), SquareGrid(side), 35, 0.7f, 0.05f};
    for (auto _ : state) {
        basekit::SplatRows(setup, 0, static_cast<int32_t>(side) - 1, rgb.data());
        benchmark::DoNotOptimize(rgb.data());
        benchmark::ClobberMemory();
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_Splat)->ArgNames({"side"})->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);

// args: side, overlay channels (0: none)
void BM_OverlayView(benchmark::State& state) {
    const int64_t side = state.range(0);
    const int channels = static_cast<int>(state.range(1));
    const std::vector<float> heights = bench::RandomField(side);
    const std::vector<float> overlay = bench::RandomField(side, channels > 0 ? channels : 1, 3);
    std::vector<float> rgb(heights.size() * 3);
    basekit::OverlaySetup setup{heights.data(),
                                SquareGrid(side),
                                channels > 0 ? overlay.data() : nullptr,
                                channels,
                                {},
                                0.8f,
                                0.5f};
    const float direction[3] = {-1.0f, -1.0f, 1.0f};
    basekit::OverlayLight(direction, setup.light);
    for (auto _ : state) {
        basekit::OverlayRows(setup, 0, static_cast<int32_t>(side) - 1, rgb.data());
        benchmark::DoNotOptimize(rgb.data());
        benchmark::ClobberMemory();
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_OverlayView)
    ->ArgNames({"side", "overlay"})
    ->ArgsProduct({{1024, 4096}, {0, 3}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
