// Terrain analysis and light, one thread: the light map's direct lighting
// (against GDAL's hillshade on the same float grid when GDAL is present), its
// shadow tracer against the literal march it reproduces, and the selectors
// (compare with BM_Copy of the same side).

#include <cmath>
#include <vector>

#include "BenchFields.h"
#include "devices/converters/LightKernels.h"
#include "devices/converters/ShadowTracer.h"
#include "devices/selectors/SelectorKernels.h"

#ifdef BASEKIT64_HAVE_GDAL
#include <gdal.h>
#include <gdal_utils.h>
#endif

namespace {

// Rolling hills with some grain, 0..1 over a unit square: what the shadow
// tracer meets in practice (white noise would block every ray at once).
std::vector<float> Hills(int64_t side) {
    const std::vector<float> grain = bench::RandomField(side);
    std::vector<float> t(static_cast<size_t>(side * side));
    const float f = 6.2831853f / static_cast<float>(side);
    for (int64_t y = 0; y < side; ++y)
        for (int64_t x = 0; x < side; ++x) {
            const float u = static_cast<float>(x) * f, v = static_cast<float>(y) * f;
            const float h = 0.5f + 0.25f * std::sin(3.0f * u) * std::cos(2.0f * v) +
                            0.05f * std::sin(11.0f * u + 7.0f * v) +
                            0.01f * std::sin(37.0f * u - 29.0f * v) +
                            0.005f * grain[static_cast<size_t>(y * side + x)];
            t[static_cast<size_t>(y * side + x)] = h;
        }
    return t;
}

Orogen::Grid UnitGrid(int64_t side) {
    Orogen::Grid grid;
    grid.width = static_cast<int32_t>(side);
    grid.height = static_cast<int32_t>(side);
    return grid;
}

// args: side
void BM_LightDirect(benchmark::State& state) {
    const int64_t side = state.range(0);
    const std::vector<float> t = Hills(side);
    const Orogen::Grid grid = UnitGrid(side);
    basekit::LightSetup setup{};
    basekit::SunDirection(315, 45, setup.light);
    setup.diffuse = 0.8f;
    setup.sky = 0.2f;
    setup.terms = basekit::kLightAllTerms;
    setup.softClip = true;
    std::vector<float> out(t.size());
    for (auto _ : state) {
        basekit::LightRows(setup, t.data(), grid, nullptr, 0, grid.height - 1, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_LightDirect)->ArgName("side")->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);

#ifdef BASEKIT64_HAVE_GDAL
// gdaldem hillshade (azimuth 315, altitude 45, the defaults) from an in-memory
// float grid into an in-memory byte grid, as a GIS user runs it.
void BM_GdalHillshade(benchmark::State& state) {
    const int64_t side = state.range(0);
    std::vector<float> t = Hills(side);
    GDALAllRegister();
    GDALDatasetH source = GDALCreate(GDALGetDriverByName("MEM"), "", static_cast<int>(side),
                                     static_cast<int>(side), 1, GDT_Float32, nullptr);
    double transform[6] = {0.0, 1.0 / side, 0.0, 0.0, 0.0, 1.0 / side};
    GDALSetGeoTransform(source, transform);
    if (GDALRasterIO(GDALGetRasterBand(source, 1), GF_Write, 0, 0, static_cast<int>(side),
                     static_cast<int>(side), t.data(), static_cast<int>(side),
                     static_cast<int>(side), GDT_Float32, 0, 0) != CE_None) {
        state.SkipWithError("GDAL would not take the grid");
        return;
    }
    char* argv[] = {const_cast<char*>("-of"), const_cast<char*>("MEM"), nullptr};
    GDALDEMProcessingOptions* options = GDALDEMProcessingOptionsNew(argv, nullptr);
    for (auto _ : state) {
        int failed = 0;
        GDALDatasetH shaded = GDALDEMProcessing("", source, "hillshade", nullptr, options, &failed);
        if (!shaded || failed) {
            state.SkipWithError("GDALDEMProcessing failed");
            break;
        }
        GDALClose(shaded);
    }
    GDALDEMProcessingOptionsFree(options);
    GDALClose(source);
    bench::CountSamples(state, side);
}
BENCHMARK(BM_GdalHillshade)->ArgName("side")->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);
#endif

// Shadows of the hills under a sun at heading 30 and a low or a middling
// altitude. args: side, altitude, fast (1) or the literal march (0).
void BM_Shadows(benchmark::State& state) {
    const int64_t side = state.range(0);
    const int32_t altitude = static_cast<int32_t>(state.range(1));
    const bool fast = state.range(2) != 0;
    const std::vector<float> t = Hills(side);
    const Orogen::Grid grid = UnitGrid(side);
    float sun[3], light[3];
    basekit::SunDirection(30, altitude, sun);
    basekit::TracerLight(sun, grid, light);
    const int32_t n = grid.width;
    std::vector<float> s(t.size());
    for (auto _ : state) {
        if (fast) {
            const basekit::ShadowTracer tracer(t.data(), n, n, light);
            tracer.TraceLines(0, tracer.LineCount() - 1, s.data());
        } else {
            basekit::TraceShadowRowsLiteral(t.data(), n, n, light, 0, n - 1, s.data());
        }
        benchmark::DoNotOptimize(s.data());
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_Shadows)
    ->ArgNames({"side", "altitude", "fast"})
    ->ArgsProduct({{1024, 4096}, {15, 45}, {1, 0}})
    ->Unit(benchmark::kMillisecond);

// args: side
void BM_SelectFacing(benchmark::State& state) {
    const int64_t side = state.range(0);
    const std::vector<float> t = Hills(side);
    const Orogen::Grid grid = UnitGrid(side);
    const basekit::FacingDirection d = basekit::MakeFacingDirection(30, 45);
    std::vector<float> facing(t.size()), angle(t.size());
    for (auto _ : state) {
        basekit::FacingRows(t.data(), grid, d, 0, grid.height - 1, facing.data(), angle.data());
        benchmark::DoNotOptimize(facing.data());
        benchmark::DoNotOptimize(angle.data());
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_SelectFacing)->ArgName("side")->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);

void BM_SelectConvexity(benchmark::State& state) {
    const int64_t side = state.range(0);
    const std::vector<float> t = Hills(side);
    const int32_t n = static_cast<int32_t>(side);
    std::vector<float> out(t.size());
    for (auto _ : state) {
        basekit::ConvexRows(t.data(), n, n, static_cast<float>(side), 0, n - 1, out.data());
        benchmark::DoNotOptimize(out.data());
    }
    bench::CountSamples(state, side);
}
BENCHMARK(BM_SelectConvexity)->ArgName("side")->Arg(1024)->Arg(4096)->Unit(benchmark::kMillisecond);

}  // namespace
