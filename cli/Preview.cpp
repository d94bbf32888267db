#include "cli/Preview.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "framework/Neighbourhood.h"

namespace orogen {

namespace {

struct Stop {
    float at;
    float rgb[3];
};

// Land from the shore up, as a fraction of the height above the water.
const Stop kLand[] = {
    {0.00f, {0.25f, 0.50f, 0.24f}}, {0.25f, {0.52f, 0.66f, 0.33f}},
    {0.50f, {0.80f, 0.74f, 0.50f}}, {0.72f, {0.58f, 0.46f, 0.36f}},
    {0.88f, {0.60f, 0.60f, 0.60f}}, {1.00f, {0.97f, 0.97f, 0.99f}},
};
const float kShallow[3] = {0.36f, 0.62f, 0.80f};
const float kDeep[3] = {0.07f, 0.18f, 0.42f};

void Blend(const float a[3], const float b[3], float t, float out[3]) {
    for (int c = 0; c < 3; ++c) out[c] = a[c] + (b[c] - a[c]) * t;
}

void LandColour(float t, float out[3]) {
    t = std::clamp(t, 0.0f, 1.0f);
    for (size_t k = 1; k < std::size(kLand); ++k) {
        if (t <= kLand[k].at) {
            float span = kLand[k].at - kLand[k - 1].at;
            Blend(kLand[k - 1].rgb, kLand[k].rgb, (t - kLand[k - 1].at) / span, out);
            return;
        }
    }
    Blend(kLand[std::size(kLand) - 1].rgb, kLand[std::size(kLand) - 1].rgb, 0.0f, out);
}

}  // namespace

basekit::host::Image RenderPreview(const basekit::host::Image& heights, const Orogen::Grid& grid,
                                   float waterLevel, const float light[3]) {
    if (heights.channels != 1) throw std::invalid_argument("a preview needs a height field");
    basekit::host::Image picture;
    picture.width = heights.width;
    picture.height = heights.height;
    picture.channels = 3;
    picture.samples.resize(static_cast<size_t>(heights.width) * heights.height * 3);

    float l[3] = {light[0], light[1], light[2]};
    if (l[0] == 0.0f && l[1] == 0.0f) {
        l[0] = -1.0f;
        l[1] = -1.0f;
        l[2] = 1.4f;
    }
    float length = std::sqrt(l[0] * l[0] + l[1] * l[1] + l[2] * l[2]);
    for (float& v : l) v /= length > 0.0f ? length : 1.0f;

    Orogen::Grid g = grid;
    g.width = heights.width;
    g.height = heights.height;
    const float water = std::clamp(waterLevel, 0.0f, 1.0f);
    const float landSpan = water < 1.0f ? 1.0f - water : 1.0f;
    // Flat ground keeps its tint; slopes facing away darken, facing towards brighten a little.
    const float flat = std::max(l[2], 0.05f);
    const Orogen::SlopeScale slopes(g);

    for (int32_t y = 0; y < heights.height; ++y) {
        for (int32_t x = 0; x < heights.width; ++x) {
            size_t at = static_cast<size_t>(y) * heights.width + x;
            float h = heights.samples[at];
            if (std::isnan(h)) h = 1.0f;
            float rgb[3];
            float shade = 1.0f;
            if (water > 0.0f && h < water) {
                Blend(kShallow, kDeep, std::clamp((water - h) / water * 2.0f, 0.0f, 1.0f), rgb);
            } else {
                LandColour((h - water) / landSpan, rgb);
                float gx = 0.0f, gy = 0.0f;
                if (heights.width > 1 && heights.height > 1)
                    slopes.Slope(Orogen::WindowAt(heights.samples.data(), heights.width,
                                                  heights.height, x, y, Orogen::EdgeRule::OneSided),
                                 gx, gy);
                float nx = -gx, ny = -gy, nz = 1.0f;
                float n = std::sqrt(nx * nx + ny * ny + nz * nz);
                float lambert = std::max(0.0f, (nx * l[0] + ny * l[1] + nz * l[2]) / n);
                shade = std::clamp(0.5f + 0.5f * lambert / flat, 0.0f, 1.2f);
            }
            for (int c = 0; c < 3; ++c)
                picture.samples[at * 3 + c] = std::clamp(rgb[c] * shade, 0.0f, 1.0f);
        }
    }
    return picture;
}

}  // namespace orogen
