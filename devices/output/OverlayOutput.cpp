#include "devices/output/OverlayOutput.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include "devices/converters/PixelsAvx2.h"
#include "framework/Neighbourhood.h"
#include "framework/Ramps.h"
#include "framework/Terrain.h"
#include "framework/Vectors.h"

namespace basekit {

static const ParamSpec kParameters[] = {
    {"Overlay Opacity", kParamReal, 1.0, 0.0, 1.0, 0, "How much of the overlay covers the terrain"},
    {"Shading", kParamReal, 0.5, 0.0, 1.0, 0, "How strongly the relief shades the view"},
    {"Write Output to Disk", kParamAction, 0, 0, 0, 0, "Write the view to a file"},
};

namespace {

// What the "Write Output to Disk" action holds; the host calls it with the device.
bool WriteAction(Device* device) {
    return static_cast<Output*>(device)->ExportAction();
}

}  // namespace

OverlayOutput::OverlayOutput() {
    SetPortCount(this, 2, 1, kHeightField);
    inputs[1]->SetName("Overlay");
    inputs[1]->kind = kHeightField | kBitmap;
    inputs[1]->role = kRoleOptional;
    outputs[0]->kind = kBitmap;
    DeclareParameters(this, kParameters);
    params.records[static_cast<size_t>(FindParameter(params, "Write Output to Disk"))].value.p =
        reinterpret_cast<void*>(&WriteAction);
}

void OverlayLight(const float direction[3], float light[3]) {
    const float d[3] = {direction[0], direction[1], direction[2]};
    const float length = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    const bool usable = length > 0.0f && std::isfinite(length);
    const float fallback[3] = {-1.0f, -1.0f, 1.0f};
    const float* v = usable ? d : fallback;
    const float norm = usable ? length : std::sqrt(3.0f);
    for (int c = 0; c < 3; ++c) light[c] = v[c] / norm;
}

#if defined(BASEKIT_HAVE_X86_VECTORS)
namespace {

// One row of the plain loop below, eight points at a time; returns where
// the plain loop goes on.
BASEKIT_TARGET_AVX2 int32_t OverlayRowAvx2(const OverlaySetup& s, const float* gx, const float* gy,
                                           const float* h, const float* overlay, int32_t width,
                                           float* out) {
    const __m256 zero = _mm256_setzero_ps();
    const __m256 L0 = _mm256_set1_ps(s.light[0]), L1 = _mm256_set1_ps(s.light[1]),
                 L2 = _mm256_set1_ps(s.light[2]);
    const __m256 keep = _mm256_set1_ps(1.0f - s.opacity), opacity = _mm256_set1_ps(s.opacity);
    const __m256 flat = _mm256_set1_ps(1.0f - s.shading), shading = _mm256_set1_ps(s.shading);
    int32_t x = 0;
    for (; x + 8 <= width; x += 8) {
        __m256 X, Y, Z;
        SlopeNormal8(_mm256_loadu_ps(gx + x), _mm256_loadu_ps(gy + x), X, Y, Z);
        const __m256 lit = _mm256_add_ps(_mm256_add_ps(_mm256_mul_ps(X, L0), _mm256_mul_ps(Y, L1)),
                                         _mm256_mul_ps(Z, L2));
        // std::max(0, lit): a NaN gives 0.
        const __m256 factor = _mm256_add_ps(flat, _mm256_mul_ps(shading, _mm256_max_ps(lit, zero)));
        const __m256 grey = _mm256_loadu_ps(h + x);
        __m256 base[3] = {grey, grey, grey};
        if (overlay && s.overlayChannels == 3)
            colour::LoadPixels(overlay + 3 * x, base[0], base[1], base[2]);
        else if (overlay)
            base[0] = base[1] = base[2] = _mm256_loadu_ps(overlay + x);
        __m256 c[3];
        for (int k = 0; k < 3; ++k)
            c[k] = colour::ClampHeights8(_mm256_mul_ps(
                _mm256_add_ps(_mm256_mul_ps(grey, keep), _mm256_mul_ps(base[k], opacity)), factor));
        colour::StorePixels(out + 3 * x, c[0], c[1], c[2]);
    }
    return x;
}

}  // namespace
#endif

void OverlayRows(const OverlaySetup& s, int32_t first, int32_t last, float* rgb, VectorPath path) {
    const int32_t width = s.grid.width, height = s.grid.height;
    if (width <= 0 || height <= 0) return;
    const Orogen::SlopeScale scale(s.grid);
    std::vector<float> gx(static_cast<size_t>(width)), gy(static_cast<size_t>(width));
    const float keep = 1.0f - s.opacity;
    const float flat = 1.0f - s.shading;
    const bool avx2 = UsablePath(path) != VectorPath::Plain;
#if !defined(BASEKIT_HAVE_X86_VECTORS)
    (void)avx2;
#endif
    for (int32_t y = first; y <= last; ++y) {
        scale.SlopeRow(s.heights, width, height, y, gx.data(), gy.data());
        const int64_t row = static_cast<int64_t>(y) * width;
        const float* h = s.heights + row;
        float* out = rgb + row * 3;
        int32_t x = 0;
#if defined(BASEKIT_HAVE_X86_VECTORS)
        if (avx2)
            x = OverlayRowAvx2(s, gx.data(), gy.data(), h,
                               s.overlay ? s.overlay + row * s.overlayChannels : nullptr, width,
                               out);
#endif
        for (; x < width; ++x) {
            float n[3];
            Orogen::SlopeNormal(gx[x], gy[x], n);
            const float lit = n[0] * s.light[0] + n[1] * s.light[1] + n[2] * s.light[2];
            const float shade = std::max(0.0f, lit);
            const float factor = flat + s.shading * shade;
            const float grey = h[x];
            for (int c = 0; c < 3; ++c) {
                float base = grey;
                if (s.overlay)
                    base =
                        s.overlayChannels == 3 ? s.overlay[(row + x) * 3 + c] : s.overlay[row + x];
                const float colour = grey * keep + base * s.opacity;
                out[3 * x + c] = ClampHeight(colour * factor);
            }
        }
    }
}

PacketRef OverlayOutput::ComposeView(const BuildContext& context) {
    if (!cachedTerrain) return PacketRef();
    const QXPacket& terrain = *cachedTerrain;
    GlobalSettings globals = HostGlobals();
    OverlaySetup setup{terrain.samples,
                       terrain.grid,
                       cachedOverlay ? cachedOverlay->samples : nullptr,
                       cachedOverlay && cachedOverlay->GetKind() == kBitmap ? 3 : 1,
                       {},
                       ParamFloat(this, "Overlay Opacity"),
                       ParamFloat(this, "Shading")};
    OverlayLight(globals.lightDirection, setup.light);
    PacketRef view = NewPacketLike(terrain, kBitmap);
    if (terrain.PointCount() > 0 &&
        !RunRows(context, this, 0, terrain.grid.height - 1, [&](int32_t first, int32_t last) {
            OverlayRows(setup, first, last, view->samples);
        }))
        return PacketRef();
    char text[64];
    std::snprintf(text, sizeof text, "%s OutputView", GetName());
    SetPacketName(*view, text);
    return view;
}

bool OverlayOutput::Build(const BuildContext& context) {
    PacketRef terrain = InputPacket(context, 0);
    if (!terrain) return false;
    terrain = ConvertPacket(terrain, kHeightField);
    if (terrain->GetKind() != kHeightField) return false;
    PacketRef overlay = InputPacket(context, 1);
    if (overlay) {
        const uint32_t kind = overlay->GetKind();
        if (kind != kHeightField && kind != kBitmap) return false;
        if (overlay->grid.width != terrain->grid.width ||
            overlay->grid.height != terrain->grid.height)
            throw QXException("the overlay and the terrain differ in size");
        SetPacketName(*overlay, "TCP BMP");
    }
    SetPacketName(*terrain, "TCP HF");
    cachedTerrain = terrain;
    cachedOverlay = overlay;
    PacketRef view = ComposeView(context);
    if (!view) return false;
    StoreOutput(context, view, 0);
    WriteOutput(context);
    return true;
}

}  // namespace basekit
