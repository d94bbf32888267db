// The portable pow, log, log10 and atan2 against the C library's float
// versions on the same inputs (bases in [0, 1], exponents 0.001..5, angles
// all round); values per second.

#include <benchmark/benchmark.h>

#include <cmath>
#include <random>
#include <vector>

#include "framework/PortableMath.h"

namespace {

constexpr int kCount = 4096;

std::vector<float> Uniform(float lo, float hi, unsigned seed) {
    std::vector<float> v(kCount);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(lo, hi);
    for (float& x : v) x = u(rng);
    return v;
}

template <typename F>
void Run(benchmark::State& state, F f) {
    const std::vector<float> a = Uniform(0.0f, 1.0f, 1), b = Uniform(0.001f, 5.0f, 2),
                             x = Uniform(-1.0f, 1.0f, 3), y = Uniform(-1.0f, 1.0f, 4);
    std::vector<float> out(kCount);
    for (auto _ : state) {
        for (int i = 0; i < kCount; ++i) out[i] = f(a[i], b[i], x[i], y[i]);
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["values/s"] =
        benchmark::Counter(double(state.iterations()) * kCount, benchmark::Counter::kIsRate);
}

void BM_Pow(benchmark::State& s) {
    Run(s, [](float a, float b, float, float) { return Orogen::Pow(a, b); });
}
void BM_PowLibrary(benchmark::State& s) {
    Run(s, [](float a, float b, float, float) { return std::pow(a, b); });
}
void BM_Log(benchmark::State& s) {
    Run(s, [](float, float b, float, float) { return Orogen::Log(b); });
}
void BM_LogLibrary(benchmark::State& s) {
    Run(s, [](float, float b, float, float) { return std::log(b); });
}
void BM_Log10(benchmark::State& s) {
    Run(s, [](float, float b, float, float) { return Orogen::Log10(b); });
}
void BM_Log10Library(benchmark::State& s) {
    Run(s, [](float, float b, float, float) { return std::log10(b); });
}
void BM_Atan2(benchmark::State& s) {
    Run(s, [](float, float, float x, float y) { return Orogen::Atan2(y, x); });
}
void BM_Atan2Library(benchmark::State& s) {
    Run(s, [](float, float, float x, float y) { return std::atan2(y, x); });
}

BENCHMARK(BM_Pow);
BENCHMARK(BM_PowLibrary);
BENCHMARK(BM_Log);
BENCHMARK(BM_LogLibrary);
BENCHMARK(BM_Log10);
BENCHMARK(BM_Log10Library);
BENCHMARK(BM_Atan2);
BENCHMARK(BM_Atan2Library);

}  // namespace
