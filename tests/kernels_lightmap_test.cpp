// The light-map maker's kernels: the fast shadow tracer bit for bit against
// the literal march on rough terrain under many suns, the march's own edge
// cases, and the lighting terms on ground whose answer is known.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "devices/converters/LightKernels.h"
#include "devices/converters/ShadowTracer.h"
#include "framework/PortableMath.h"
#include "framework/Terrain.h"

namespace basekit {
namespace {

bool SameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// Hills, noise, terraces of exact heights (ties with a level ray), a cap
// clipped to 1 and a pit clipped to 0.
std::vector<float> RoughTerrain(int32_t w, int32_t h, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> noise(-0.04f, 0.04f);
    std::vector<float> t(static_cast<size_t>(w) * h);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) {
            float v = 0.45f + 0.3f * Orogen::Sin(x * 0.21f) * Orogen::Cos(y * 0.17f) +
                      0.25f * Orogen::Sin((x + 2 * y) * 0.05f) + noise(rng);
            if ((x / 9 + y / 7) % 5 == 0) v = std::floor(v * 16.0f) / 16.0f;
            t[static_cast<size_t>(y) * w + x] = std::clamp(v, 0.0f, 1.0f);
        }
    return t;
}

std::vector<float> Literal(const std::vector<float>& t, int32_t w, int32_t h, const float l[3]) {
    std::vector<float> s(t.size(), -1.0f);
    TraceShadowRowsLiteral(t.data(), w, h, l, 0, h - 1, s.data());
    return s;
}

std::vector<float> Fast(const std::vector<float>& t, int32_t w, int32_t h, const float l[3]) {
    std::vector<float> s(t.size(), -1.0f);
    const ShadowTracer tracer(t.data(), w, h, l);
    // Lines in two uneven pieces, as threads would take them.
    const int32_t lines = tracer.LineCount(), cut = lines / 3;
    tracer.TraceLines(cut, lines - 1, s.data());
    tracer.TraceLines(0, cut - 1, s.data());
    return s;
}

TEST(ShadowTracer, SkippingGivesTheLiteralMarchBitForBit) {
    const struct {
        int32_t w, h;
        double extent, vertical;
    } grids[] = {
        {53, 41, 1.0, 1.0},   // steep rays: short marches
        {40, 67, 0.05, 1.0},  // 800 to 1340 samples a unit: long, shallow rays
        {61, 61, 0.2, 0.3},   // a lower vertical scale steepens them again
        {47, 38, 4.0, 0.0},   // no vertical scale: the light as given
    };
    int32_t fastCases = 0, shadowed = 0, lit = 0;
    for (const auto& g : grids) {
        const std::vector<float> t = RoughTerrain(g.w, g.h, static_cast<uint32_t>(g.w * g.h));
        Orogen::Grid grid;
        grid.width = g.w;
        grid.height = g.h;
        grid.x1 = g.extent;
        grid.verticalScale = g.vertical;
        for (int32_t heading : {0, 30, 45, 90, 118, 180, 225, 250, 300, 359})
            for (int32_t altitude : {0, 2, 10, 30, 60, 89, 90}) {
                SCOPED_TRACE(testing::Message()
                             << g.w << "x" << g.h << " extent " << g.extent << " heading "
                             << heading << " altitude " << altitude);
                float sun[3], light[3];
                SunDirection(heading, altitude, sun);
                TracerLight(sun, grid, light);
                const std::vector<float> want = Literal(t, g.w, g.h, light);
                ASSERT_TRUE(SameBits(Fast(t, g.w, g.h, light), want));
                fastCases += ShadowTracer(t.data(), g.w, g.h, light).Skips();
                for (float v : want) (v == 0.0f ? shadowed : lit) += 1;
            }
    }
    // The comparison means something only if both kinds of sample and the
    // skipping path all occur.
    EXPECT_GT(fastCases, 200);
    EXPECT_GT(shadowed, 20000);
    EXPECT_GT(lit, 20000);
}

TEST(ShadowTracer, LightsTheFastPathDoesNotTakeStillMatch) {
    const int32_t w = 23, h = 19;
    std::vector<float> t = RoughTerrain(w, h, 5);
    const struct {
        float light[3];
        bool skips;
    } cases[] = {
        {{0.0f, 0.0f, 1.0f}, false},   // straight up: steps of 1000
        {{0.6f, 0.3f, -0.2f}, false},  // below the horizon
        {{NAN, 0.0f, 0.0f}, false},
        {{0.0f, 0.0f, NAN}, false},     // a zero extent's light: lit throughout
        {{0.3f, -0.9f, 0.001f}, true},  // along y: columns
        {{-0.7f, 0.7f, 0.01f}, true},   // a diagonal: both steps exact
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.light[0] << ", " << c.light[1] << ", " << c.light[2]);
        EXPECT_EQ(ShadowTracer(t.data(), w, h, c.light).Skips(), c.skips);
        EXPECT_TRUE(SameBits(Fast(t, w, h, c.light), Literal(t, w, h, c.light)));
    }
    // Ground outside 0..1 takes the literal march too.
    t[7] = 1.5f;
    const float light[3] = {1.0f, 0.0f, 0.001f};
    EXPECT_FALSE(ShadowTracer(t.data(), w, h, light).Skips());
    EXPECT_TRUE(SameBits(Fast(t, w, h, light), Literal(t, w, h, light)));
}

TEST(ShadowTracer, AWallShadowsOnlyWhenItRisesPastTheMargin) {
    // A level ray (no climb) toward -x from ground at 0.5 meets a wall at
    // column 1.
    const int32_t w = 8, h = 3;
    const float light[3] = {1.0f, 0.0f, 0.0f};
    const struct {
        float wall;
        float shadow;
    } cases[] = {
        {0.5f, 1.0f},
        {0.5f + 0.00001f, 1.0f},  // exactly at the ray's height plus the margin
        {std::nextafter(0.5f + 0.00001f, 1.0f), 0.0f},
        {0.9f, 0.0f},
    };
    for (const auto& c : cases) {
        std::vector<float> t(static_cast<size_t>(w) * h, 0.5f);
        for (int32_t y = 0; y < h; ++y) t[static_cast<size_t>(y) * w + 1] = c.wall;
        for (const auto& s : {Literal(t, w, h, light), Fast(t, w, h, light)}) {
            EXPECT_EQ(s[w + 1], 1.0f) << c.wall;  // the wall itself
            EXPECT_EQ(s[w + 0], 1.0f) << c.wall;  // before it, seen from the sun side
            for (int32_t x = 2; x < w; ++x) EXPECT_EQ(s[w + x], c.shadow) << c.wall << " @" << x;
        }
    }
}

TEST(ShadowTracer, TheLightInSamplesAndTheOverheadSun) {
    Orogen::Grid grid;
    grid.width = 512;
    grid.x1 = 2.0;  // 256 samples a unit
    grid.verticalScale = 0.5;
    const float sun[3] = {0.6f, 0.0f, 0.8f};
    float light[3];
    TracerLight(sun, grid, light);
    const float z = 0.8f / 256.0f / 0.5f;
    const float len = std::sqrt(0.6f * 0.6f + z * z);
    EXPECT_EQ(light[0], 0.6f / len);
    EXPECT_EQ(light[2], z / len);
    grid.verticalScale = 0.0;  // left as given
    TracerLight(sun, grid, light);
    EXPECT_EQ(light[2], 0.8f);

    // Altitude 90 leaves x and y next to nothing: each step climbs a thousand
    // times the step, so even a sample at the foot of a cliff stays lit.
    SunDirection(0, 90, light);
    std::vector<float> t(16 * 4, 0.0f);
    for (int32_t y = 0; y < 4; ++y) t[y * 16] = 1.0f;
    for (float v : Literal(t, 16, 4, light)) EXPECT_EQ(v, 1.0f);
}

TEST(LightKernels, TermsOnFlatGround) {
    // Flat ground has the normal (0, 0, 1): n.L = L_z and the sky term is
    // the whole sky level.
    const int32_t w = 5, h = 4;
    Orogen::Grid grid;
    grid.width = w;
    grid.height = h;
    const std::vector<float> flat(static_cast<size_t>(w) * h, 0.3f);
    std::vector<float> shadow(flat.size(), 1.0f);
    shadow[6] = 0.0f;
    shadow[7] = 0.25f;
    const auto soft = [](float v) { return 1.0f - static_cast<float>(Orogen::Exp(-1.5f * v)); };
    float sunAt30[3];
    SunDirection(40, 30, sunAt30);
    const struct {
        int32_t heading, altitude, terms;
        bool softClip, shadows;
        float sky, diffuse;
        float lit, at7;  // a lit sample, and sample 7 (a quarter lit)
    } cases[] = {
        // The defaults: a sun on the horizon gives nothing direct.
        {0, 0, kLightAllTerms, true, false, 0.2f, 0.8f, soft(0.2f), soft(0.2f)},
        {40, 30, kLightAllTerms, false, true, 0.2f, 0.8f, sunAt30[2] * 1.0f * 0.8f + 0.2f,
         sunAt30[2] * 0.25f * 0.8f + 0.2f},
        {40, 30, kLightShadowsOnly, false, true, 0.7f, 0.8f, 1.0f, 0.25f},  // the shadow alone
        {40, 30, kLightShadowsOnly, false, false, 0.7f, 0.8f, 1.0f, 1.0f},
        {40, 30, kLightIndirectOnly, false, true, 0.7f, 0.8f, 1.0f, 0.25f + 0.7f},  // capped
        {40, 30, kLightIndirectOnly, true, true, 0.7f, 0.8f, soft(1.7f), soft(0.95f)},
        {0, 90, kLightAllTerms, false, false, 1.0f, 1.0f, 1.0f, 1.0f},  // 2 capped at 1
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.heading << "/" << c.altitude << " terms " << c.terms);
        LightSetup setup{};
        SunDirection(c.heading, c.altitude, setup.light);
        setup.terms = c.terms;
        setup.softClip = c.softClip;
        setup.sky = c.sky;
        setup.diffuse = c.diffuse;
        std::vector<float> grey(flat.size(), -1.0f);
        LightRows(setup, flat.data(), grid, c.shadows ? shadow.data() : nullptr, 0, h - 1,
                  grey.data());
        EXPECT_EQ(grey[0], c.lit);
        EXPECT_EQ(grey[7], c.at7);
        // Colour: each channel is the grey sum with the terms tinted.
        setup.colour = true;
        const float sunColour[3] = {1.0f, 0.5f, 0.0f}, skyColour[3] = {0.0f, 0.25f, 1.0f};
        std::copy(sunColour, sunColour + 3, setup.sunColour);
        std::copy(skyColour, skyColour + 3, setup.skyColour);
        std::vector<float> rgb(3 * flat.size(), -1.0f);
        LightRows(setup, flat.data(), grid, c.shadows ? shadow.data() : nullptr, 0, h - 1,
                  rgb.data());
        const float lit = c.shadows ? shadow[7] : 1.0f;
        const float direct =
            c.terms == kLightAllTerms ? std::max(0.0f, setup.light[2]) * lit * c.diffuse : lit;
        const float sky = c.terms == kLightShadowsOnly ? 0.0f : c.sky;
        for (int ch = 0; ch < 3; ++ch) {
            const float v = sunColour[ch] * direct + skyColour[ch] * sky;
            EXPECT_EQ(rgb[21 + ch], c.softClip ? soft(v) : std::min(v, 1.0f)) << ch;
        }
    }
}

TEST(LightKernels, EveryVectorPathGivesThePlainBits) {
    const int32_t w = 45, h = 13;
    std::vector<float> t = RoughTerrain(w, h, 11);
    t[100] = NAN;    // NaN slopes: soft clipping falls back to Exp on that row
    t[200] = 3e38f;  // slopes whose squares overflow: still lit, no NaN
    std::vector<float> shadow = RoughTerrain(w, h, 12);
    Orogen::Grid grid;
    grid.width = w;
    grid.height = h;
    grid.x1 = 0.3;
    grid.verticalScale = 0.7;
    for (VectorPath path : {VectorPath::Avx2, VectorPath::Avx512}) {
        if (!PathAvailable(path)) continue;
        for (int32_t terms : {kLightShadowsOnly, kLightIndirectOnly, kLightAllTerms})
            for (int32_t flags = 0; flags < 8; ++flags) {
                SCOPED_TRACE(testing::Message()
                             << VectorPathName(path) << " terms " << terms << " flags " << flags);
                LightSetup setup{};
                SunDirection(75, 25, setup.light);
                setup.terms = terms;
                setup.diffuse = 0.8f;
                setup.sky = 0.45f;
                setup.softClip = flags & 1;
                setup.colour = flags & 2;
                const float sun[3] = {1.0f, 0.9f, 0.5f}, sky[3] = {0.2f, 0.6f, 1.0f};
                std::copy(sun, sun + 3, setup.sunColour);
                std::copy(sky, sky + 3, setup.skyColour);
                const float* s = flags & 4 ? shadow.data() : nullptr;
                std::vector<float> plain(t.size() * (setup.colour ? 3 : 1), -1.0f);
                std::vector<float> vector(plain.size(), -2.0f);
                LightRows(setup, t.data(), grid, s, 0, h - 1, plain.data(), VectorPath::Plain);
                LightRows(setup, t.data(), grid, s, 0, h - 1, vector.data(), path);
                EXPECT_TRUE(SameBits(plain, vector));
                for (size_t i = 3 * w * (setup.colour ? 3 : 1); i < plain.size(); ++i)
                    ASSERT_FALSE(std::isnan(plain[i])) << i;
                // The plain rows are the formulas sample by sample.
                const size_t at = 7 * w + 19;
                float gx, gy, n[3];
                Orogen::HeightSlope(t.data(), grid, 19, 7, gx, gy);
                Orogen::SlopeNormal(gx, gy, n);
                const float lit = s ? s[at] : 1.0f;
                const float d = terms == kLightAllTerms
                                    ? std::max(0.0f, n[0] * setup.light[0] + n[1] * setup.light[1] +
                                                         n[2] * setup.light[2]) *
                                          lit * setup.diffuse
                                    : lit;
                const float k = terms == kLightShadowsOnly
                                    ? 0.0f
                                    : setup.sky * std::max(0.0f, (2.0f * n[2] + 1.0f) / 3.0f);
                const float v = setup.colour ? sun[1] * d + sky[1] * k : d + k;
                const float want = setup.softClip
                                       ? 1.0f - static_cast<float>(Orogen::Exp(-1.5f * v))
                                       : std::min(v, 1.0f);
                EXPECT_EQ(plain[setup.colour ? 3 * at + 1 : at], want);
            }
    }
}

TEST(LightKernels, SlopesTurnTowardOrAwayFromTheSun) {
    // A ramp rising toward +x at 45 degrees in world units. The normal is
    // (gx, gy, 1) as it stands, so it leans toward +x: a sun on the horizon
    // at heading 0 (L = +x) lights it by cos 45, one at heading 180 not at all.
    const int32_t w = 6, h = 3;
    Orogen::Grid grid;
    grid.width = w;
    grid.height = h;
    grid.x1 = 6.0;  // one sample a unit
    std::vector<float> ramp(static_cast<size_t>(w) * h);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<float>(i % w) * 0.1f;
    grid.verticalScale = 10.0;  // a rise of 1 a sample
    LightSetup setup{};
    setup.terms = kLightAllTerms;
    setup.diffuse = 1.0f;
    setup.sky = 0.0f;
    std::vector<float> out(ramp.size());
    SunDirection(0, 0, setup.light);
    LightRows(setup, ramp.data(), grid, nullptr, 0, h - 1, out.data());
    const float n = 1.0f / std::sqrt(1.0f * 1.0f + 0.0f + 1.0f);
    EXPECT_NEAR(out[w + 2], n, 1e-6f);
    SunDirection(180, 0, setup.light);
    LightRows(setup, ramp.data(), grid, nullptr, 0, h - 1, out.data());
    EXPECT_EQ(out[w + 2], 0.0f);  // facing away: no negative light
}

}  // namespace
}  // namespace basekit
