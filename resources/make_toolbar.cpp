// Draws the toolbar strip: one 16x16 icon per catalogue entry, in catalogue
// order, each a tiny picture of what the device makes. Built and run on the
// build machine; writes the 24-bit BMP the resource script embeds and PNG
// copies to look at.
//
//   make_toolbar OUT.bmp OUT.png [OUT-x4.png]

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "host/ImageIO.h"
#include "plugin/Catalogue.h"

namespace {

constexpr int kSize = 16;

struct Colour {
    float r, g, b;
};

Colour Mix(Colour a, Colour b, float t) {
    return {a.r + (b.r - a.r) * t, a.g + (b.g - a.g) * t, a.b + (b.b - a.b) * t};
}

Colour Grey(float v) {
    return {v, v, v};
}

const Colour kFace = {192 / 255.0f, 192 / 255.0f, 192 / 255.0f};  // shows between buttons
const Colour kInk = {0.12f, 0.12f, 0.14f};
const Colour kSky = {0.72f, 0.85f, 1.0f};
const Colour kWater = {0.15f, 0.35f, 0.75f};
const Colour kSand = {0.9f, 0.82f, 0.55f};
const Colour kGrass = {0.3f, 0.62f, 0.25f};
const Colour kRock = {0.55f, 0.42f, 0.3f};
const Colour kSnow = {0.97f, 0.97f, 1.0f};
const Colour kRed = {0.9f, 0.15f, 0.1f};
const Colour kGreen = {0.1f, 0.75f, 0.2f};
const Colour kBlue = {0.15f, 0.3f, 0.95f};

// Low to high: water, sand, grass, rock, snow.
Colour TerrainColour(float h) {
    const struct {
        float at;
        Colour colour;
    } stops[] = {{0.0f, kWater}, {0.25f, kWater}, {0.3f, kSand}, {0.45f, kGrass},
                 {0.75f, kRock}, {0.9f, kSnow},   {1.0f, kSnow}};
    h = std::clamp(h, 0.0f, 1.0f);
    for (size_t i = 1; i < std::size(stops); ++i)
        if (h <= stops[i].at)
            return Mix(stops[i - 1].colour, stops[i].colour,
                       (h - stops[i - 1].at) / (stops[i].at - stops[i - 1].at));
    return kSnow;
}

class Icon {
  public:
    Icon() { Fill(kFace); }

    void Set(int x, int y, Colour c) {
        if (x >= 0 && x < kSize && y >= 0 && y < kSize) pixels[y * kSize + x] = c;
    }
    Colour Get(int x, int y) const { return pixels[y * kSize + x]; }

    void Fill(Colour c) {
        for (Colour& p : pixels) p = c;
    }
    void Rect(int x0, int y0, int x1, int y1, Colour c) {
        for (int y = y0; y <= y1; ++y)
            for (int x = x0; x <= x1; ++x) Set(x, y, c);
    }
    void Frame(int x0, int y0, int x1, int y1, Colour c) {
        for (int x = x0; x <= x1; ++x) Set(x, y0, c), Set(x, y1, c);
        for (int y = y0; y <= y1; ++y) Set(x0, y, c), Set(x1, y, c);
    }
    void Line(int x0, int y0, int x1, int y1, Colour c) {
        const int steps = std::max(std::abs(x1 - x0), std::abs(y1 - y0));
        for (int i = 0; i <= steps; ++i) {
            const float t = steps ? float(i) / float(steps) : 0.0f;
            Set(int(std::lround(x0 + (x1 - x0) * t)), int(std::lround(y0 + (y1 - y0) * t)), c);
        }
    }

    // The picture area: pixels 1..14, with u and v from 0 to 1 across it.
    void Picture(const std::function<Colour(float u, float v)>& colour) {
        for (int y = 1; y < kSize - 1; ++y)
            for (int x = 1; x < kSize - 1; ++x)
                Set(x, y, colour((x - 0.5f) / 14.0f, (y - 0.5f) / 14.0f));
    }

    // A height field seen from above, lit from the upper left.
    void Relief(const std::function<float(float, float)>& height,
                const std::function<Colour(float)>& colour, float relief = 2.5f) {
        const float e = 1.0f / 14.0f;
        Picture([&](float u, float v) {
            const float h = height(u, v);
            const float slope = (height(u - e, v - e) - height(u + e, v + e)) * relief;
            const float light = std::clamp(0.8f + slope, 0.35f, 1.25f);
            const Colour c = colour(h);
            return Colour{std::min(c.r * light, 1.0f), std::min(c.g * light, 1.0f),
                          std::min(c.b * light, 1.0f)};
        });
    }

    std::vector<Colour> pixels = std::vector<Colour>(kSize * kSize);
};

float Bump(float u, float v, float cu, float cv, float radius) {
    const float d2 = (u - cu) * (u - cu) + (v - cv) * (v - cv);
    return std::exp(-d2 / (radius * radius));
}

// Fixed cell centres for the cellular icons.
const float kSites[][2] = {{0.15f, 0.2f}, {0.55f, 0.1f}, {0.9f, 0.3f}, {0.35f, 0.55f},
                           {0.75f, 0.65f}, {0.1f, 0.85f}, {0.5f, 0.92f}, {0.95f, 0.95f}};

void Nearest(float u, float v, float& f1, float& f2) {
    f1 = f2 = 9.0f;
    for (const auto& s : kSites) {
        const float d = std::hypot(u - s[0], v - s[1]);
        if (d < f1) {
            f2 = f1;
            f1 = d;
        } else if (d < f2) {
            f2 = d;
        }
    }
}

// A small repeatable noise in -1..1.
float Hash(int x, int y) {
    uint32_t h = uint32_t(x) * 374761393u + uint32_t(y) * 668265263u;
    h = (h ^ (h >> 13)) * 1274126177u;
    return float((h ^ (h >> 16)) & 0xffff) / 32767.5f - 1.0f;
}

// A mountain profile seen from the side: the ground's height at u.
float Profile(float u) {
    return 0.15f + 0.6f * std::exp(-(u - 0.45f) * (u - 0.45f) / 0.05f) +
           0.25f * std::exp(-(u - 0.85f) * (u - 0.85f) / 0.015f);
}

// Sky above and `ground(u, height above the ground line)` below.
void SideView(Icon& icon, const std::function<Colour(float u, float v, float ground)>& below) {
    icon.Picture([&](float u, float v) {
        const float ground = Profile(u);
        return 1.0f - v > ground ? kSky : below(u, v, ground);
    });
}

// A small graph: axes and a curve y = f(x) over 0..1.
void Graph(Icon& icon, const std::function<float(float)>& f) {
    icon.Rect(1, 1, 14, 14, Grey(0.98f));
    icon.Line(2, 2, 2, 13, Grey(0.55f));
    icon.Line(2, 13, 13, 13, Grey(0.55f));
    for (int x = 3; x <= 13; ++x) {
        const float y = std::clamp(f((x - 3) / 10.0f), 0.0f, 1.0f);
        icon.Set(x, 12 - int(std::lround(y * 10.0f)), kBlue);
    }
}

void Arrow(Icon& icon, int x0, int y, int x1, Colour c) {
    icon.Line(x0, y, x1, y, c);
    const int d = x1 > x0 ? -1 : 1;
    icon.Set(x1 + d, y - 1, c);
    icon.Set(x1 + d, y + 1, c);
}

using Drawer = void (*)(Icon&);

void Constant(Icon& i) {  // a flat plate seen at an angle
    i.Rect(1, 1, 14, 14, kSky);
    for (int y = 6; y <= 10; ++y) i.Line(4 - (y - 6) / 2 + 1, y, 14 - (y - 6) / 2, y, Grey(0.8f));
    i.Rect(2, 11, 12, 12, Grey(0.45f));
    i.Line(5, 6, 14, 6, Grey(0.95f));
}
void Gradient(Icon& i) {  // a ramp from low to high
    i.Picture([](float u, float v) { return Grey(0.1f + 0.85f * (u * 0.75f + (1 - v) * 0.25f)); });
}
void Inverter(Icon& i) {  // a hill, and the same hill upside down
    i.Picture([](float u, float v) {
        const float h = 0.1f + 0.85f * Bump(u, v, 0.5f, 0.5f, 0.3f);
        return Grey(u < 0.5f ? h : 1.0f - h);
    });
}
void TrueCombiner(Icon& i) {  // two fields added into one
    i.Relief([](float u, float v) { return 0.6f * Bump(u, v, 0.32f, 0.4f, 0.22f) +
                                           0.6f * Bump(u, v, 0.68f, 0.6f, 0.22f); },
             [](float h) { return Grey(0.15f + 0.8f * h); });
    i.Line(11, 2, 11, 6, kRed);
    i.Line(9, 4, 13, 4, kRed);
}
void Displacement(Icon& i) {  // a chequerboard pushed sideways by a wave
    i.Picture([](float u, float v) {
        const float shifted = u + 0.12f * std::sin(v * 7.0f);
        const bool dark = (int(std::floor(shifted * 4.0f)) + int(std::floor(v * 4.0f))) % 2 != 0;
        return dark ? Grey(0.2f) : Grey(0.92f);
    });
}
void Ramp(Icon& i) {  // heights remapped: flat, rising, flat
    Graph(i, [](float x) { return std::clamp((x - 0.3f) / 0.4f, 0.0f, 1.0f) * 0.8f + 0.1f; });
}
void HeightSplitter(Icon& i) {  // the ground cut at a height
    SideView(i, [](float, float v, float) { return 1.0f - v > 0.45f ? kRed : Grey(0.35f); });
    i.Line(1, 8, 14, 8, Grey(0.1f));
}
void SelectFacing(Icon& i) {  // the slopes that face one way, selected
    i.Relief([](float u, float v) { return Bump(u, v, 0.5f, 0.5f, 0.33f); },
             [](float h) { return Grey(0.2f + 0.7f * h); });
    const float e = 1.0f / 14.0f;
    i.Picture([&](float u, float v) {
        const float dx = Bump(u + e, v, 0.5f, 0.5f, 0.33f) - Bump(u - e, v, 0.5f, 0.5f, 0.33f);
        const Colour c = i.Get(int(u * 14 + 1), int(v * 14 + 1));
        return dx < -0.05f ? Mix(c, kRed, 0.7f) : c;
    });
}
void MultiSwitch(Icon& i) {  // one of several inputs goes through
    i.Rect(1, 1, 14, 14, Grey(0.97f));
    for (int y : {3, 7, 11}) i.Line(1, y, 5, y, y == 7 ? kRed : Grey(0.5f));
    i.Frame(6, 2, 9, 12, kInk);
    i.Line(6, 7, 9, 7, kRed);
    Arrow(i, 10, 7, 14, kRed);
}
void MultiChooser(Icon& i) {  // one picture chosen among several
    const Colour swatches[] = {Grey(0.3f), kGreen, Grey(0.75f)};
    i.Rect(1, 1, 14, 14, Grey(0.97f));
    for (int k = 0; k < 3; ++k) i.Rect(2, 2 + 4 * k, 5, 4 + 4 * k, swatches[k]);
    i.Frame(1, 5, 6, 9, kRed);
    Arrow(i, 7, 7, 13, kRed);
}
void AddNoise(Icon& i) {  // a ramp made rough
    i.Picture([](float u, float v) {
        return Grey(std::clamp(0.2f + 0.6f * u + 0.22f * Hash(int(u * 14), int(v * 14)), 0.0f, 1.0f));
    });
}
void ProbScatter(Icon& i) {  // dots thrown at random
    i.Rect(1, 1, 14, 14, Grey(0.15f));
    for (int y = 1; y < 15; ++y)
        for (int x = 1; x < 15; ++x)
            if (Hash(x * 7, y * 13) > 0.8f) i.Set(x, y, Grey(0.95f));
}
void BiasGain(Icon& i) {  // the straight response, bent
    Graph(i, [](float x) { return x; });
    for (int x = 3; x <= 13; ++x)
        if (x % 2) i.Set(x, 12 - (x - 3), Grey(0.8f));
    for (int x = 3; x <= 13; ++x) {
        const float t = (x - 3) / 10.0f, y = t < 0.5f ? 2 * t * t : 1 - 2 * (1 - t) * (1 - t);
        i.Set(x, 12 - int(std::lround(y * 10.0f)), kRed);
    }
}
void RadialGrad(Icon& i) {  // a round bump
    i.Relief([](float u, float v) { return Bump(u, v, 0.5f, 0.5f, 0.35f); },
             [](float h) { return Grey(0.1f + 0.85f * h); });
}
void Switch(Icon& i) {  // two inputs, a lever picks one
    i.Rect(1, 1, 14, 14, Grey(0.97f));
    i.Line(1, 4, 5, 4, kRed);
    i.Line(1, 11, 5, 11, Grey(0.5f));
    i.Line(5, 4, 10, 7, kInk);  // the lever
    i.Set(5, 4, kInk);
    i.Set(5, 11, kInk);
    Arrow(i, 10, 7, 14, kRed);
}
void Flipper(Icon& i) {  // a shape and its mirror image
    i.Rect(1, 1, 14, 14, Grey(0.97f));
    const int shape[][2] = {{2, 3}, {3, 3}, {4, 3}, {5, 3}, {6, 3}, {2, 4}, {2, 5}, {2, 6},
                            {3, 6}, {4, 6}, {2, 7}, {2, 8}, {2, 9}, {2, 10}, {2, 11}};
    for (const auto& p : shape) {
        i.Set(p[0], p[1], kInk);
        i.Set(15 - p[0], p[1], kBlue);
    }
    for (int y = 1; y <= 14; y += 2) i.Set(7, y, kRed), i.Set(8, y, kRed);
}
void Equals(Icon& i) {  // where the height equals a level: a contour
    i.Picture([](float u, float v) {
        const float h = Bump(u, v, 0.5f, 0.5f, 0.4f);
        return std::fabs(h - 0.5f) < 0.12f ? Grey(1.0f) : Grey(0.1f);
    });
}
void Equalizer(Icon& i) {  // heights spread evenly: a flattened histogram
    i.Rect(1, 1, 14, 14, Grey(0.97f));
    const int bars[] = {9, 10, 9, 10, 9, 10};
    for (int k = 0; k < 6; ++k) i.Rect(2 + 2 * k, 13 - bars[k], 2 + 2 * k, 13, kBlue);
    i.Line(1, 13, 14, 13, kInk);
}
void Combiner(Icon& i) {  // two pictures blended where they meet
    i.Picture([](float u, float v) {
        const bool a = std::hypot(u - 0.36f, v - 0.5f) < 0.3f;
        const bool b = std::hypot(u - 0.64f, v - 0.5f) < 0.3f;
        return a && b ? Mix(kRed, kBlue, 0.5f) : a ? kRed : b ? kBlue : Grey(0.97f);
    });
}
void OverlayOutput(Icon& i) {  // a layer laid over another
    i.Rect(1, 1, 14, 14, Grey(0.97f));
    i.Rect(2, 2, 10, 10, Grey(0.45f));
    i.Picture([&](float u, float v) {
        const Colour c = i.Get(int(u * 14 + 1), int(v * 14 + 1));
        return u > 0.35f && v > 0.35f && u < 0.95f && v < 0.95f ? Mix(c, kGreen, 0.6f) : c;
    });
}
void ConvexSelector(Icon& i) {  // the rounded tops selected
    SideView(i, [](float u, float, float) {
        const float curvature = Profile(u - 0.07f) + Profile(u + 0.07f) - 2 * Profile(u);
        return curvature < -0.01f ? kRed : Grey(0.35f);
    });
}
void Colorize(Icon& i) {  // a colour ramp over the heights
    i.Picture([](float u, float v) { return TerrainColour(u * 0.8f + (1 - v) * 0.2f); });
}
void NormalMaker(Icon& i) {  // the normals of a bump as colours
    const float e = 1.0f / 14.0f;
    i.Picture([&](float u, float v) {
        const float dx = (Bump(u + e, v, 0.5f, 0.5f, 0.35f) - Bump(u - e, v, 0.5f, 0.5f, 0.35f)) * 4;
        const float dy = (Bump(u, v + e, 0.5f, 0.5f, 0.35f) - Bump(u, v - e, 0.5f, 0.5f, 0.35f)) * 4;
        const float n = std::sqrt(dx * dx + dy * dy + 1.0f);
        return Colour{0.5f - 0.5f * dx / n, 0.5f + 0.5f * dy / n, 0.5f + 0.5f / n};
    });
}
void ChannelSplitter(Icon& i) {  // one colour picture into red, green and blue
    i.Rect(1, 1, 14, 14, Grey(0.97f));
    i.Picture([&](float u, float v) {
        return u < 0.4f && v > 0.25f && v < 0.75f ? TerrainColour(v) : i.Get(int(u * 14 + 1), int(v * 14 + 1));
    });
    i.Rect(9, 2, 13, 4, kRed);
    i.Rect(9, 6, 13, 8, kGreen);
    i.Rect(9, 10, 13, 12, kBlue);
}
void ChannelCombiner(Icon& i) {  // red, green and blue into one colour picture
    i.Rect(1, 1, 14, 14, Grey(0.97f));
    i.Rect(2, 2, 6, 4, kRed);
    i.Rect(2, 6, 6, 8, kGreen);
    i.Rect(2, 10, 6, 12, kBlue);
    i.Picture([&](float u, float v) {
        return u > 0.6f && v > 0.25f && v < 0.75f ? TerrainColour(v) : i.Get(int(u * 14 + 1), int(v * 14 + 1));
    });
}
void LightMapMaker(Icon& i) {  // the ground lit by the sun in the corner
    const float e = 1.0f / 14.0f;
    auto h = [](float u, float v) { return 0.5f * Bump(u, v, 0.55f, 0.6f, 0.3f); };
    i.Picture([&](float u, float v) {
        const float dx = (h(u + e, v) - h(u - e, v)) * 7, dy = (h(u, v + e) - h(u, v - e)) * 7;
        const float lambert = (dx + dy + 1.0f) / std::sqrt(3.0f * (dx * dx + dy * dy + 1.0f));
        return Grey(std::clamp(0.15f + 0.8f * lambert, 0.0f, 1.0f));
    });
    i.Rect(1, 1, 3, 3, Colour{1.0f, 0.85f, 0.1f});
}
void Blur(Icon& i) {  // a soft blob
    i.Picture([](float u, float v) {
        const float d = std::hypot(u - 0.5f, v - 0.5f);
        return Grey(0.1f + 0.85f * std::clamp((0.42f - d) / 0.3f, 0.0f, 1.0f));
    });
}
void Expander(Icon& i) {  // a shape grown outwards
    i.Picture([](float u, float v) {
        const float d = std::max(std::fabs(u - 0.5f), std::fabs(v - 0.5f));
        return d < 0.15f ? Grey(0.95f) : d < 0.3f ? Grey(0.6f) : Grey(0.15f);
    });
    for (const int k : {1, 14}) {
        i.Set(k, 7, kRed), i.Set(k, 8, kRed), i.Set(7, k, kRed), i.Set(8, k, kRed);
    }
}
void Voronoi(Icon& i) {  // cells
    i.Picture([](float u, float v) {
        float f1, f2;
        Nearest(u, v, f1, f2);
        return f2 - f1 < 0.05f ? Grey(0.1f) : Grey(0.35f + 1.6f * f1);
    });
}
void SnowLevel(Icon& i) {  // a mountain with snow above a height
    SideView(i, [](float, float v, float) { return 1.0f - v > 0.5f ? kSnow : kRock; });
}
void CoastalErosion(Icon& i) {  // sea, beach and land
    i.Picture([](float u, float v) {
        const float coast = 0.45f + 0.12f * std::sin(v * 9.0f) + 0.05f * Hash(int(v * 14), 3);
        return u < coast ? kWater : u < coast + 0.14f ? kSand : kGrass;
    });
}
void CheckPoint(Icon& i) {  // a flag: a stop to look at
    i.Rect(1, 1, 14, 14, Grey(0.97f));
    i.Line(4, 2, 4, 13, kInk);
    i.Rect(5, 2, 12, 7, kRed);
    i.Line(2, 13, 7, 13, kInk);
}
void SelectColor(Icon& i) {  // where the picture has a colour, selected
    i.Picture([](float u, float v) {
        const Colour c = TerrainColour(Bump(u, v, 0.5f, 0.5f, 0.4f));
        return u > 0.5f ? (c.g > c.r && c.g > c.b ? Grey(1.0f) : Grey(0.1f)) : c;
    });
}
void HeightCombiner(Icon& i) {  // two peaks, the higher ground wins
    i.Relief([](float u, float v) {
        const float a = 1.0f - std::hypot(u - 0.35f, v - 0.4f) / 0.4f;
        const float b = 0.8f - std::hypot(u - 0.68f, v - 0.65f) / 0.45f;
        return std::max({a, b, 0.0f});
    }, [](float h) { return Grey(0.15f + 0.8f * h); }, 1.5f);
}
void SplatMaker(Icon& i) {  // ground split into red, green and blue layers
    i.Picture([](float u, float v) {
        const float h = Bump(u, v, 0.55f, 0.5f, 0.35f);
        return h > 0.7f ? kBlue : h > 0.35f ? kGreen : kRed;
    });
}

// In catalogue order.
const Drawer kIcons[] = {
    Constant,        Gradient,      Inverter,       TrueCombiner,   Displacement,
    Ramp,            HeightSplitter, SelectFacing,  MultiSwitch,    MultiChooser,
    AddNoise,        ProbScatter,   BiasGain,       RadialGrad,     Switch,
    Flipper,         Equals,        Equalizer,      Combiner,       OverlayOutput,
    ConvexSelector,  Colorize,      NormalMaker,    ChannelSplitter, ChannelCombiner,
    LightMapMaker,   Blur,          Expander,       Voronoi,        SnowLevel,
    CoastalErosion,  CheckPoint,    SelectColor,    HeightCombiner, SplatMaker,
};
static_assert(std::size(kIcons) == basekit::kCatalogueSize, "one icon per catalogue entry");

uint8_t Byte(float v) {
    return uint8_t(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f));
}

bool WriteBmp(const std::string& path, const basekit::host::Image& strip) {
    const uint32_t rowBytes = (uint32_t(strip.width) * 3 + 3) & ~3u;
    const uint32_t pixelBytes = rowBytes * uint32_t(strip.height);
    std::vector<uint8_t> file;
    auto put = [&](uint32_t v, int bytes) {
        for (int b = 0; b < bytes; ++b) file.push_back(uint8_t(v >> (8 * b)));
    };
    file.push_back('B');
    file.push_back('M');
    put(14 + 40 + pixelBytes, 4);
    put(0, 4);
    put(14 + 40, 4);
    put(40, 4);  // BITMAPINFOHEADER
    put(uint32_t(strip.width), 4);
    put(uint32_t(strip.height), 4);  // positive: rows bottom-up
    put(1, 2);
    put(24, 2);
    put(0, 4);  // uncompressed
    put(pixelBytes, 4);
    put(2835, 4);  // 72 dpi
    put(2835, 4);
    put(0, 4);
    put(0, 4);
    for (int y = strip.height - 1; y >= 0; --y) {
        for (int x = 0; x < strip.width; ++x) {
            const float* p = &strip.samples[(size_t(y) * strip.width + x) * 3];
            file.push_back(Byte(p[2]));
            file.push_back(Byte(p[1]));
            file.push_back(Byte(p[0]));
        }
        for (uint32_t pad = uint32_t(strip.width) * 3; pad < rowBytes; ++pad) file.push_back(0);
    }
    std::FILE* out = std::fopen(path.c_str(), "wb");
    if (!out) return false;
    const bool written = std::fwrite(file.data(), 1, file.size(), out) == file.size();
    if (std::fclose(out) == 0 && written) return true;
    std::remove(path.c_str());  // no half-written bitmap for the next build step
    return false;
}

basekit::host::Image Enlarged(const basekit::host::Image& image, int factor) {
    basekit::host::Image big{image.width * factor, image.height * factor, 3, {}};
    big.samples.resize(size_t(big.width) * big.height * 3);
    for (int y = 0; y < big.height; ++y)
        for (int x = 0; x < big.width; ++x)
            for (int c = 0; c < 3; ++c)
                big.samples[(size_t(y) * big.width + x) * 3 + c] =
                    image.samples[(size_t(y / factor) * image.width + x / factor) * 3 + c];
    return big;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4) {
        std::fprintf(stderr, "usage: make_toolbar OUT.bmp OUT.png [OUT-x4.png]\n");
        return 2;
    }
    const int count = int(std::size(kIcons));
    basekit::host::Image strip{kSize * count, kSize, 3, {}};
    strip.samples.resize(size_t(strip.width) * kSize * 3);
    for (int n = 0; n < count; ++n) {
        Icon icon;
        kIcons[n](icon);
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x) {
                const Colour c = icon.Get(x, y);
                float* p = &strip.samples[(size_t(y) * strip.width + n * kSize + x) * 3];
                // Rounded as the BMP stores them, so that the PNG shows the same.
                p[0] = Byte(c.r) / 255.0f;
                p[1] = Byte(c.g) / 255.0f;
                p[2] = Byte(c.b) / 255.0f;
            }
    }
    try {
        if (!WriteBmp(argv[1], strip)) throw std::runtime_error(std::string("cannot write ") + argv[1]);
        basekit::host::WriteStoredPng(argv[2], strip, 8);
        if (argc == 4) basekit::host::WriteStoredPng(argv[3], Enlarged(strip, 4), 8);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "make_toolbar: %s\n", e.what());
        return 1;
    }
    return 0;
}
