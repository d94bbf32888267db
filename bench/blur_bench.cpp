// Blur kernels over square height fields: both passes of box and Gaussian,
// one pass of motion blur; samples per second. With OpenCV present its box
// and Gaussian filters run on the same field with the same kernel size,
// sigma and border rule, for comparison.

#include "BenchFields.h"

#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "devices/filters/GaussBlur.h"
#include "framework/VectorDispatch.h"

#ifdef BASEKIT64_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

using bench::CountSamples;
using bench::RandomField;

using basekit::VectorPath;

// Rows first..last of one pass of a box or Gaussian blur.
void Pass(int type, const float* weights, int radius, int pass, const float* in, float* out,
          int side, int first, int last, VectorPath path) {
    const basekit::BlurPlane plane{in, out, side, side, 1};
    if (type == basekit::kBlurUniform)
        basekit::BoxBlurRows(plane, radius, pass, first, last, path);
    else
        basekit::GaussianBlurRows(plane, weights, radius, pass, first, last, path);
}

// args: type (0 box, 1 Gaussian), radius, side, vector path, workers (1 or 2)
void BM_Blur(benchmark::State& state) {
    const int type = static_cast<int>(state.range(0));
    const int radius = static_cast<int>(state.range(1));
    const int side = static_cast<int>(state.range(2));
    const auto path = static_cast<VectorPath>(state.range(3));
    const int workers = static_cast<int>(state.range(4));
    if (!basekit::PathAvailable(path)) {
        state.SkipWithError("vector path not available on this CPU");
        return;
    }
    const std::vector<float> in = RandomField(side);
    std::vector<float> tmp(in.size()), out(in.size());
    const std::vector<float> w = basekit::GaussianKernel(radius);
    for (auto _ : state) {
        for (int pass = 0; pass < 2; ++pass) {
            const float* src = pass == 0 ? in.data() : tmp.data();
            float* dst = pass == 0 ? tmp.data() : out.data();
            if (workers == 1) {
                Pass(type, w.data(), radius, pass, src, dst, side, 0, side - 1, path);
            } else {
                // Two workers by row halves, the second pass after both halves of the first.
                std::thread other(Pass, type, w.data(), radius, pass, src, dst, side, side / 2,
                                  side - 1, path);
                Pass(type, w.data(), radius, pass, src, dst, side, 0, side / 2 - 1, path);
                other.join();
            }
        }
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetLabel(basekit::VectorPathName(path));
    CountSamples(state, side);
}

// args: radius, side, vector path
void BM_MotionBlur(benchmark::State& state) {
    const int radius = static_cast<int>(state.range(0));
    const int side = static_cast<int>(state.range(1));
    const auto path = static_cast<VectorPath>(state.range(2));
    if (!basekit::PathAvailable(path)) {
        state.SkipWithError("vector path not available on this CPU");
        return;
    }
    const std::vector<float> in = RandomField(side);
    std::vector<float> out(in.size());
    const std::vector<float> w = basekit::GaussianKernel(radius);
    const basekit::BlurPlane plane{in.data(), out.data(), side, side, 1};
    for (auto _ : state) {
        basekit::MotionBlurRows(plane, w.data(), radius, 0.8660254f, 0.5f, 0, side - 1, path);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetLabel(basekit::VectorPathName(path));
    CountSamples(state, side);
}

void BlurArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"type", "R", "side", "path", "workers"});
    const int best = static_cast<int>(basekit::BestVectorPath());
    for (int type : {0, 1}) {
        for (int radius : {4, 16, 64}) {
            for (int side : {1024, 4096}) {
                b->Args({type, radius, side, best, 1});
                b->Args({type, radius, side, best, 2});
            }
            // The plain path, for scale.
            b->Args({type, radius, 1024, 0, 1});
            if (best == 2) b->Args({type, radius, 1024, 1, 1});
        }
    }
}

BENCHMARK(BM_Blur)->Apply(BlurArgs)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MotionBlur)
    ->ArgNames({"R", "side", "path"})
    ->Args({16, 1024, 0})
    ->Args({16, 1024, static_cast<int>(basekit::BestVectorPath())})
    ->Unit(benchmark::kMillisecond);

#ifdef BASEKIT64_HAVE_OPENCV
// args: type (0 cv::blur, 1 cv::GaussianBlur), radius, side, threads
void BM_OpenCV(benchmark::State& state) {
    const int type = static_cast<int>(state.range(0));
    const int radius = static_cast<int>(state.range(1));
    const int side = static_cast<int>(state.range(2));
    const int threads = static_cast<int>(state.range(3));
    std::vector<float> data = RandomField(side);
    cv::Mat in(side, side, CV_32F, data.data()), out;
    const cv::Size size(2 * radius + 1, 2 * radius + 1);
    const int before = cv::getNumThreads();
    cv::setNumThreads(threads);
    for (auto _ : state) {
        if (type == 0)
            cv::blur(in, out, size, cv::Point(-1, -1), cv::BORDER_REPLICATE);
        else
            cv::GaussianBlur(in, out, size, radius / 3.0, radius / 3.0, cv::BORDER_REPLICATE);
        benchmark::DoNotOptimize(out.data);
        benchmark::ClobberMemory();
    }
    cv::setNumThreads(before);
    CountSamples(state, side);
}

void OpenCVArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"type", "R", "side", "threads"});
    for (int type : {0, 1})
        for (int radius : {4, 16, 64})
            for (int side : {1024, 4096})
                for (int threads : {1, 2}) b->Args({type, radius, side, threads});
}

BENCHMARK(BM_OpenCV)->Apply(OpenCVArgs)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

}  // namespace
