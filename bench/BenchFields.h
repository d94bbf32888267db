// What the kernel benchmarks share: reproducible random fields, the
// samples-per-second counter, and the plain copy that per-sample devices are
// measured against.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

namespace bench {

// side × side × channels floats in 0..1, the same on every run.
inline std::vector<float> RandomField(int64_t side, int channels = 1, uint32_t seed = 1) {
    std::vector<float> v(static_cast<size_t>(side * side * channels));
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (float& x : v) x = u(rng);
    return v;
}

// Reports grid samples (not floats) per second.
inline void CountSamples(benchmark::State& state, int64_t side) {
    state.counters["samples/s"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * static_cast<double>(side * side),
        benchmark::Counter::kIsRate);
}

}  // namespace bench
