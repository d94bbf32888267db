// Cellular row kernel: samples per second on one thread, per vector path.

#include <benchmark/benchmark.h>

#include <vector>

#include "devices/generators/CellularTex.h"
#include "framework/VectorDispatch.h"

namespace {

using basekit::CellDistance;
using basekit::VectorPath;

// args: style, distance, vector path, cubes across the field
void BM_CellularRows(benchmark::State& state) {
    const auto path = static_cast<VectorPath>(state.range(2));
    if (!basekit::PathAvailable(path)) {
        state.SkipWithError("vector path not available on this CPU");
        return;
    }
    // A 1024 x 1024 build over 8 x 8 world units.
    std::vector<double> world(1024);
    for (int i = 0; i < 1024; ++i) world[i] = (i * (1.0 / 1023)) * 8.0;
    basekit::CellularRowSetup s;
    s.width = 1024;
    s.height = 1024;
    s.worldX = world.data();
    s.worldY = world.data();
    s.scale = static_cast<double>(state.range(3)) / 8.0;
    s.style = static_cast<int>(state.range(0));
    s.distance = static_cast<CellDistance>(state.range(1));
    s.seed = 12345;
    std::vector<float> out(static_cast<size_t>(s.width) * s.height);
    const int rowsPerIteration = 32;
    int row = 0;
    for (auto _ : state) {
        basekit::CellularRows(s, row, row + rowsPerIteration - 1, nullptr, out.data(), path);
        row = (row + 7 * rowsPerIteration) % (s.height - rowsPerIteration);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetLabel(basekit::VectorPathName(path));
    state.counters["samples/s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * rowsPerIteration * s.width,
        benchmark::Counter::kIsRate);
}

void CellularArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"style", "dist", "path", "cubes"});
    for (int style : {basekit::kCellF1, basekit::kCellF2MinusF1, basekit::kCellF1Cells})
        for (int dist : {0, 1})
            for (int path : {0, 1, 2})
                for (int cubes : {8, 128}) b->Args({style, dist, path, cubes});
}

BENCHMARK(BM_CellularRows)->Apply(CellularArgs);

}  // namespace
