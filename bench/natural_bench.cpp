// The natural processes' kernels: one snow pass (sample updates per second
// beside a stream over the three fields a pass touches) and the whole coast
// erosion beside the two blur passes it contains.

#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "BenchFields.h"
#include "devices/filters/blur/BlurKernels.h"
#include "devices/natural/CoastalErosion.h"
#include "devices/natural/SnowLevel.h"
#include "framework/VectorDispatch.h"

namespace {

using basekit::VectorPath;
using bench::RandomField;

// Rows first..last split between the calling thread and one more.
template <class Rows>
void OnWorkers(int workers, int first, int last, Rows rows) {
    if (workers == 1) return rows(first, last);
    const int middle = first + (last - first + 1) / 2;
    std::thread other(rows, middle, last);
    rows(first, middle - 1);
    other.join();
}

// Sample updates per second: the interior of the field.
void CountUpdates(benchmark::State& state, int64_t side) {
    state.counters["updates/s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * static_cast<double>((side - 2) * (side - 2)),
        benchmark::Counter::kIsRate);
}

// args: side, vector path, workers (1 or 2)
void BM_SnowPass(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    const auto path = static_cast<VectorPath>(state.range(1));
    const int workers = static_cast<int>(state.range(2));
    if (!basekit::PathAvailable(path)) {
        state.SkipWithError("vector path not available on this CPU");
        return;
    }
    const std::vector<float> terrain = RandomField(side, 1, 1);
    std::vector<float> snow = RandomField(side, 1, 2), next = snow;
    for (float& s : snow) s *= 0.01f;
    basekit::SnowPass pass;
    pass.terrain = terrain.data();
    pass.snow = snow.data();
    pass.next = next.data();
    pass.width = pass.height = side;
    pass.fall = {nullptr, 0.5f * 0.64f / side};
    pass.evaporation = pass.fall;
    pass.snowLine = 0.3f;
    for (auto _ : state) {
        OnWorkers(workers, 1, side - 2,
                  [&](int first, int last) { basekit::SnowPassRows(pass, first, last, path); });
        benchmark::DoNotOptimize(next.data());
        benchmark::ClobberMemory();
    }
    state.SetLabel(basekit::VectorPathName(path));
    CountUpdates(state, side);
}

// What a pass cannot go below: read two fields, write a third, nothing else.
// args: side, workers
void BM_SnowFields(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    const int workers = static_cast<int>(state.range(1));
    const std::vector<float> a = RandomField(side, 1, 1), b = RandomField(side, 1, 2);
    std::vector<float> out(a.size());
    for (auto _ : state) {
        OnWorkers(workers, 1, side - 2, [&](int first, int last) {
            const size_t begin = static_cast<size_t>(first) * side;
            const size_t end = static_cast<size_t>(last + 1) * side;
            for (size_t i = begin; i < end; ++i) out[i] = a[i] + b[i];
        });
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    CountUpdates(state, side);
}

void SnowArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"side", "path", "workers"});
    const int best = static_cast<int>(basekit::BestVectorPath());
    for (int side : {1025, 4097}) {
        b->Args({side, best, 1});
        b->Args({side, best, 2});
        if (best == 2) b->Args({side, 1, 1});
        b->Args({side, 0, 1});
    }
}

BENCHMARK(BM_SnowPass)->Apply(SnowArgs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_SnowFields)
    ->ArgNames({"side", "workers"})
    ->ArgsProduct({{1025, 4097}, {1, 2}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The two Gaussian passes the erosion smooths with, or (erode 1) the whole
// erosion: shaping, both passes and the blend. One thread. The
// radius is the default "Smoothing Amount" 4 at side samples per unit.
// args: side, erode
void BM_Coast(benchmark::State& state) {
    const int side = static_cast<int>(state.range(0));
    const bool erode = state.range(1) != 0;
    const int radius = 4 * side / 256;
    const std::vector<float> in = RandomField(side);
    std::vector<float> heights(in.size()), scratch(in.size()), blurred(in.size());
    std::vector<float> water(in.size()), beach(in.size());
    const std::vector<float> weights = basekit::GaussianKernel(radius);
    const basekit::CoastSetup setup =
        basekit::MakeCoastSetup(0.1004f, 0.075f, basekit::kCoastSmooth, 0.5f);
    for (auto _ : state) {
        std::memcpy(heights.data(), in.data(), in.size() * sizeof(float));
        if (erode) {
            for (int y = 0; y < side; ++y) {
                const size_t row = static_cast<size_t>(y) * side;
                basekit::ErodeCoastRow(setup, heights.data() + row, nullptr, water.data() + row,
                                       beach.data() + row, side);
            }
        }
        basekit::GaussianBlurRows({heights.data(), scratch.data(), side, side, 1}, weights.data(),
                                  radius, 0, 0, side - 1);
        basekit::GaussianBlurRows({scratch.data(), blurred.data(), side, side, 1}, weights.data(),
                                  radius, 1, 0, side - 1);
        if (erode)
            basekit::BlendUnderwater(heights.data(), blurred.data(), water.data(), in.size());
        benchmark::DoNotOptimize(heights.data());
        benchmark::ClobberMemory();
    }
    state.SetLabel(erode ? "erosion" : "blur");
    bench::CountSamples(state, side);
}
BENCHMARK(BM_Coast)
    ->ArgNames({"side", "erode"})
    ->ArgsProduct({{1025, 4097}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
