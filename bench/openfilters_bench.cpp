// Ramp, Expander, Equalizer, Bias/Gain, Add Noise, Height Splitter and
// Probability kernels over square fields, one thread; compare the per-sample
// ones with BM_Copy of the same side. Kernels run in place, as the devices do
// on their private copy of the input.

#include <cstdint>
#include <vector>

#include "BenchFields.h"
#include "devices/filters/AddNoise.h"
#include "devices/filters/BiasGain.h"
#include "devices/filters/Equalizer.h"
#include "devices/filters/Expander.h"
#include "devices/filters/HeightSplitter.h"
#include "devices/filters/ProbScatter.h"
#include "devices/filters/Ramp.h"
#include "framework/VectorDispatch.h"

namespace {

using bench::CountSamples;
using bench::RandomField;

// Argument `arg` of a benchmark: 0 the plain loops, 1 the widest vector path.
basekit::VectorPath Path(const benchmark::State& state, int arg) {
    return state.range(arg) ? basekit::BestVectorPath() : basekit::VectorPath::Plain;
}

template <class Kernel>
void RunInPlace(benchmark::State& state, Kernel kernel) {
    const int64_t side = state.range(0);
    std::vector<float> field = RandomField(side);
    for (auto _ : state) {
        kernel(field.data(), side);
        benchmark::DoNotOptimize(field.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}

// args: side, shape
void BM_Ramp(benchmark::State& state) {
    const auto shape = static_cast<int32_t>(state.range(1));
    RunInPlace(state, [&](float* f, int64_t side) {
        basekit::RampSamples(f, static_cast<uint64_t>(side * side), 0.2f, 0.8f, shape,
                             Path(state, 2));
    });
}
BENCHMARK(BM_Ramp)
    ->ArgNames({"side", "shape", "vector"})
    ->ArgsProduct({{1024, 4096}, {0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// Both passes: the range, then the stretch.
void BM_Expand(benchmark::State& state) {
    RunInPlace(state, [&](float* f, int64_t side) {
        const auto n = static_cast<uint64_t>(side * side);
        const basekit::VectorPath path = Path(state, 1);
        basekit::ExpandSamples(f, n, basekit::FindHeightRange(f, n, path), 0.1f, 0.9f, path);
    });
}
BENCHMARK(BM_Expand)
    ->ArgNames({"side", "vector"})
    ->ArgsProduct({{1024, 4096}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// args: side, curve (0 defaults, 1 bias only, 2 both)
void BM_BiasGain(benchmark::State& state) {
    const int64_t curve = state.range(1);
    const basekit::BiasGainCurve c =
        basekit::MakeBiasGainCurve(curve ? 0.3f : 0.5f, curve == 2 ? 0.7f : 0.5f);
    RunInPlace(state, [&](float* f, int64_t side) {
        basekit::BiasGainSamples(f, static_cast<uint64_t>(side * side), c, Path(state, 2));
    });
}
BENCHMARK(BM_BiasGain)
    ->ArgNames({"side", "curve", "vector"})
    ->ArgsProduct({{1024, 4096}, {0, 1, 2}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// args: side, type (0 uniform, 1 Gaussian)
void BM_AddNoise(benchmark::State& state) {
    const auto type = static_cast<int32_t>(state.range(1));
    RunInPlace(state, [&](float* f, int64_t side) {
        const auto width = static_cast<int32_t>(side);
        for (int32_t y = 0; y < width; ++y)
            basekit::AddNoiseRow(f + static_cast<int64_t>(y) * width, width, y, 7, 0.05f, type,
                                 Path(state, 2));
    });
}
BENCHMARK(BM_AddNoise)
    ->ArgNames({"side", "type", "vector"})
    ->ArgsProduct({{1024, 4096}, {0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// Three outputs from one input: lower in place, upper and mask new.
void BM_Split(benchmark::State& state) {
    const int64_t side = state.range(0);
    std::vector<float> field = RandomField(side), upper(field.size()), mask(field.size());
    for (auto _ : state) {
        basekit::SplitSamples(field.data(), upper.data(), mask.data(), field.size(), 0.5f, 0.05f,
                              Path(state, 1));
        benchmark::DoNotOptimize(mask.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}
BENCHMARK(BM_Split)
    ->ArgNames({"side", "vector"})
    ->ArgsProduct({{1024, 4096}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// args: side, spacing in thousandths of the 4-unit extent's world units (0: every sample)
void BM_Scatter(benchmark::State& state) {
    const int64_t side = state.range(0);
    const float spacing = static_cast<float>(state.range(1)) / 1000.0f;
    const std::vector<float> chance = RandomField(side);
    std::vector<float> out(chance.size());
    const auto width = static_cast<int32_t>(side);
    for (auto _ : state) {
        if (spacing > 0.0f) {
            std::fill(out.begin(), out.end(), 0.0f);
            basekit::ScatterSpaced({chance.data(), width, width, 4.0f, 4.0f}, out.data(), spacing,
                                   7, 1.0f);
        } else {
            for (int32_t y = 0; y < width; ++y)
                basekit::ScatterRow(chance.data() + static_cast<int64_t>(y) * width,
                                    out.data() + static_cast<int64_t>(y) * width, width, y, 7, 1.0f,
                                    Path(state, 2));
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    CountSamples(state, side);
}
BENCHMARK(BM_Scatter)
    ->ArgNames({"side", "spacing", "vector"})
    ->ArgsProduct({{1024, 4096}, {0, 20}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

// The whole equalisation: clamp, one sort, ranks written back.
void BM_Equalize(benchmark::State& state) {
    RunInPlace(state, [](float* f, int64_t side) {
        basekit::EqualizeSamples(f, static_cast<uint64_t>(side * side), 1.0f);
    });
}
BENCHMARK(BM_Equalize)->ArgName("side")->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);

}  // namespace
