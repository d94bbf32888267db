// Select Angle, Select Convexity and Light-Map Maker in networks of the
// reference host: alone and on 1, 2 and 7 workers against their plain kernels
// (the literal shadow march included), extents other than the unit square,
// mask flags, port names, the global light, enabling rules, saved state and
// missing inputs.

#include "devices/converters/LightKernels.h"
#include "devices/converters/ShadowTracer.h"
#include "devices/selectors/SelectorKernels.h"
#include "framework/Terrain.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using basekit::testing::LoadBytes;
using basekit::testing::SavedBytes;
using Orogen::Device;
using Orogen::GetParameter;

class AnalysisTest : public HostTest {
  protected:
    // A wavy ramp of `width` x 29 over [0, x1] x [0, 1].
    std::unique_ptr<Network> WavyNetwork(int32_t width, double x1, double vertical) {
        auto network = MakeNetwork(width, 29);
        network->world.x1 = x1;
        network->world.verticalScale = vertical;
        network->AddDevice("ramp", "Test Ramp");
        GetParameter(&network->Get("ramp"), "Waves")->i = 1;
        return network;
    }
};

void Clamped(std::vector<float>& v) {
    Orogen::ClampHeights(v.data(), v.size());
}

TEST_F(AnalysisTest, SelectorsAreTheirKernelsClampedOnEveryExtent) {
    const struct {
        int32_t width;
        double x1, vertical;
        int32_t heading, elevation;
        float strength;
    } cases[] = {
        {67, 1.0, 1.0, 0, 45, 1.0f},
        {40, 0.25, 0.3, 135, 10, 4.0f},  // steep: masks clip at 1
        {53, 3.0, 2.0, 359, 90, 0.5f},
        {31, 0.0, 1.0, 270, 0, 2.0f},  // no extent: flat slopes, convexity 0.5
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.width << " x1 " << c.x1 << " heading " << c.heading);
        auto network = WavyNetwork(c.width, c.x1, c.vertical);
        Device& facing = network->AddDevice("facing", "Select Angle");
        Device& convex = network->AddDevice("convex", "Select Convexity");
        GetParameter(&facing, "Heading")->i = c.heading;
        GetParameter(&facing, "Elevation")->i = c.elevation;
        GetParameter(&convex, "Strength")->f = c.strength;
        network->Connect("ramp", 0, "facing", 0);
        network->Connect("ramp", 0, "convex", 0);
        const auto gotFacing = BuildEveryWay(*network, "facing");
        const auto gotConvex = BuildEveryWay(*network, "convex");

        const std::vector<float> t = SamplesOf(network->Output("ramp", 0));
        const Orogen::Grid grid = network->world.ToGrid();
        std::vector<float> mask(t.size()), angle(t.size()), convexity(t.size());
        FacingRows(t.data(), grid, MakeFacingDirection(c.heading, c.elevation), 0, 28, mask.data(),
                   angle.data());
        const float gain = static_cast<float>(Orogen::SamplesPerUnit(grid)) * c.strength;
        ConvexRows(t.data(), c.width, 29, gain, 0, 28, convexity.data());
        Clamped(mask);
        Clamped(angle);
        Clamped(convexity);
        EXPECT_TRUE(SameBits(gotFacing[0], mask));
        EXPECT_TRUE(SameBits(gotFacing[1], angle));
        EXPECT_TRUE(SameBits(gotConvex[0], convexity));
        if (c.x1 == 0.0) {
            for (float v : gotConvex[0]) EXPECT_EQ(v, 0.5f);
        }
        for (const char* id : {"facing", "convex"})
            for (uint32_t k = 0; k < network->Get(id).outputs.size(); ++k)
                EXPECT_EQ(network->Output(id, k)->maskFlag, 1) << id << k;
        EXPECT_EQ(network->Output("facing", 1)->name, std::string("Select Angle: slot 1"));
    }
}

TEST_F(AnalysisTest, SelectorPortsStateAndMissingInput) {
    auto network = MakeNetwork(9, 7);
    Device& facing = network->AddDevice("facing", "Select Angle");
    EXPECT_STREQ(facing.GetOutputName(0), "Primary Output");
    EXPECT_STREQ(facing.GetOutputName(1), "Surface Angle");
    EXPECT_STREQ(facing.GetOutputName(2), "Primary Output");
    EXPECT_EQ(facing.outputs[1]->role, Orogen::kRoleOptional);
    EXPECT_EQ(facing.GetColor(), 0x965096u);
    EXPECT_EQ(facing.GetCategory(), 6);
    for (const char* type : {"Select Angle", "Select Convexity", "Light-Map Maker"}) {
        SCOPED_TRACE(type);
        Device& device = network->AddDevice(std::string("d") + type, type);
        GetParameter(&device, device.params.records[0].name)->i = 1;
        const std::string saved = SavedBytes(device);
        // Tag, version 1, then the base block straight away.
        ASSERT_GT(saved.size(), 9u);
        EXPECT_EQ(saved[4], 1);
        EXPECT_EQ(saved.substr(5, 4), "SPRK");
        Device& loaded = network->AddDevice(std::string("l") + type, type);
        ASSERT_TRUE(LoadBytes(loaded, saved));
        EXPECT_EQ(loaded.params.records[0].value.i, 1);
        loaded.seed = device.seed;  // drawn afresh by the host
        EXPECT_EQ(SavedBytes(loaded), saved);
        std::string wrong = saved;
        wrong[1] ^= 1;
        EXPECT_FALSE(LoadBytes(loaded, wrong));
        const std::string id = std::string("d") + type;
        EXPECT_EQ(network->Build().Find(id)->status, BuildStatus::Failed);
        EXPECT_FALSE(network->Output(id, 0));
    }
}

// The map by its kernels: the literal march, the in-place softening of the
// interior, then the lighting.
std::vector<float> ExpectedLightMap(const std::vector<float>& t, const Orogen::Grid& grid,
                                    const LightSetup& setup, bool raytraced) {
    const int32_t w = grid.width, h = grid.height;
    std::vector<float> shadow(t.size(), 1.0f);
    if (raytraced) {
        float light[3];
        TracerLight(setup.light, grid, light);
        TraceShadowRowsLiteral(t.data(), w, h, light, 0, h - 1, shadow.data());
        for (int32_t y = 1; y + 1 < h; ++y)
            for (int32_t x = 1; x + 1 < w; ++x) {
                float* s = &shadow[static_cast<size_t>(y) * w + x];
                *s = 0.25f * (s[-1] + s[1] + s[-w] + s[w]);
            }
    }
    std::vector<float> out(t.size() * (setup.colour ? 3 : 1));
    LightRows(setup, t.data(), grid, raytraced ? shadow.data() : nullptr, 0, h - 1, out.data());
    return out;
}

TEST_F(AnalysisTest, LightMapIsItsKernelsOnEveryExtentAndThreadCount) {
    const struct {
        int32_t width;
        double x1, vertical;
        bool raytraced, colour, soft, global;
        int32_t terms, heading, altitude;
    } cases[] = {
        {67, 1.0, 1.0, false, false, true, false, kLightAllTerms, 0, 0},  // the defaults
        {67, 1.0, 1.0, true, false, true, false, kLightAllTerms, 120, 8},
        {45, 0.25, 0.4, true, true, false, false, kLightShadowsOnly, 300, 3},
        {50, 4.0, 2.0, true, false, false, true, kLightIndirectOnly, 0, 0},
        {38, 1.0, 0.0, true, true, true, true, kLightAllTerms, 0, 0},      // no vertical scale
        {33, 0.0, 1.0, true, false, true, false, kLightAllTerms, 45, 30},  // no extent
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.width << " x1 " << c.x1 << " raytraced "
                                          << c.raytraced << " global " << c.global);
        auto network = WavyNetwork(c.width, c.x1, c.vertical);
        network->globals.lightDirection[0] = -0.3f;
        network->globals.lightDirection[1] = 0.8f;
        network->globals.lightDirection[2] = 0.2f;
        Device& map = network->AddDevice("map", "Light-Map Maker");
        GetParameter(&map, "Illumination Model")->i = c.raytraced;
        GetParameter(&map, "Included Lighting")->i = c.terms;
        GetParameter(&map, "Produce RGB Lightmap")->i = c.colour;
        GetParameter(&map, "Soft Clipping")->i = c.soft;
        GetParameter(&map, "Use Global Light Direction")->i = c.global;
        GetParameter(&map, "Sun Heading")->i = c.heading;
        GetParameter(&map, "Sun Altitude")->i = c.altitude;
        GetParameter(&map, "Sky Lighting Level")->f = 0.3f;
        GetParameter(&map, "Diffuse Level")->f = 0.9f;
        GetParameter(&map, "Sun Color")->i = 0xFF8040;
        network->Connect("ramp", 0, "map", 0);
        EXPECT_EQ(map.OptionQuery3(Orogen::kGlobalLightDirection), c.global);
        EXPECT_FALSE(map.OptionQuery3(Orogen::kGlobalWaterLevel));
        for (const char* name : {"Sun Heading", "Sun Altitude"})
            EXPECT_EQ(Orogen::ParameterEnabled(&map, name), !c.global) << name;
        for (const char* name : {"Sun Color", "Sky Color"})
            EXPECT_EQ(Orogen::ParameterEnabled(&map, name), c.colour) << name;

        const auto got = BuildEveryWay(*network, "map");
        LightSetup setup{};
        if (c.global) {
            std::copy(network->globals.lightDirection, network->globals.lightDirection + 3,
                      setup.light);
            NormaliseLight(setup.light);
        } else {
            SunDirection(c.heading, c.altitude, setup.light);
        }
        setup.diffuse = 0.9f;
        setup.sky = 0.3f;
        setup.terms = c.terms;
        setup.softClip = c.soft;
        setup.colour = c.colour;
        const float sun[3] = {1.0f, 128 / 255.0f, 64 / 255.0f};
        const float sky[3] = {0xDD / 255.0f, 0xDD / 255.0f, 0xEE / 255.0f};
        std::copy(sun, sun + 3, setup.sunColour);
        std::copy(sky, sky + 3, setup.skyColour);
        const std::vector<float> t = SamplesOf(network->Output("ramp", 0));
        EXPECT_TRUE(
            SameBits(got[0], ExpectedLightMap(t, network->world.ToGrid(), setup, c.raytraced)));
        const Orogen::PacketRef out = network->Output("map", 0);
        EXPECT_EQ(out->GetKind(), c.colour ? Orogen::kBitmap : Orogen::kHeightField);
        EXPECT_EQ(out->maskFlag, c.global ? 3 : 1);
        EXPECT_EQ(out->name, std::string("Light-Map Maker: slot 0"));
    }
}

TEST_F(AnalysisTest, ShadowMapBordersAreNotSoftened) {
    // "Shadows" alone without soft clipping gives the shadow map itself. A
    // low sun from +x over the ripple leaves shadows on every side.
    auto network = WavyNetwork(41, 1.0, 1.0);
    Device& map = network->AddDevice("map", "Light-Map Maker");
    GetParameter(&map, "Illumination Model")->i = 1;
    GetParameter(&map, "Included Lighting")->i = kLightShadowsOnly;
    GetParameter(&map, "Soft Clipping")->i = 0;
    GetParameter(&map, "Sun Altitude")->i = 2;
    network->Connect("ramp", 0, "map", 0);
    const std::vector<float> got = BuildEveryWay(*network, "map")[0];
    const std::vector<float> t = SamplesOf(network->Output("ramp", 0));
    float sun[3], light[3];
    SunDirection(0, 2, sun);
    TracerLight(sun, network->world.ToGrid(), light);
    std::vector<float> raw(t.size());
    TraceShadowRowsLiteral(t.data(), 41, 29, light, 0, 28, raw.data());
    int32_t dark = 0, soft = 0;
    for (int32_t y = 0; y < 29; ++y)
        for (int32_t x = 0; x < 41; ++x) {
            const size_t i = static_cast<size_t>(y) * 41 + x;
            if (x == 0 || y == 0 || x == 40 || y == 28) {
                EXPECT_EQ(got[i], raw[i]) << x << ", " << y;
                dark += raw[i] == 0.0f;
            } else {
                soft += got[i] != 0.0f && got[i] != 1.0f;
            }
        }
    EXPECT_GT(dark, 0);  // the border holds shadow that softening would have touched
    EXPECT_GT(soft, 0);
}

}  // namespace
}  // namespace basekit::host::testing
