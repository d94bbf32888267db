// Coast Erosion and Snow in networks of the reference host against their
// plain kernels, on 1, 2, 3 and 8 threads, each loaded from the saved state
// of a device set up as the case says: extents other than the unit square,
// the global water level, optional maps, cancellation.

#include "ReferenceKernels.h"
#include "devices/natural/CoastalErosion.h"
#include "devices/natural/SnowLevel.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using basekit::testing::LoadBytes;
using basekit::testing::SavedBytes;
using Orogen::Device;
using Orogen::GetParameter;

class NaturalTest : public HostTest {};

// A new device `id` loaded from the saved state of `proto`, which is left
// unlinked: with no terrain it fails and stores nothing. The state under
// another tag or cut short is refused first.
Device& LoadedCopy(Network& network, Device& proto, const std::string& id, const char* header) {
    const std::string protoId = network.IdOf(&proto);
    EXPECT_EQ(network.Build().Find(protoId)->status, BuildStatus::Failed);
    for (uint32_t k = 0; k < proto.outputs.size(); ++k) EXPECT_FALSE(network.Output(protoId, k));
    const std::string saved = SavedBytes(proto);
    EXPECT_EQ(saved.substr(0, 5), std::string(header, 5));
    Device& copy = network.AddDevice(id, proto.GetTypeName());
    std::string wrongTag = saved;
    wrongTag[0] = 'X';
    EXPECT_FALSE(LoadBytes(copy, wrongTag));
    EXPECT_FALSE(LoadBytes(copy, saved.substr(0, saved.size() - 3)));
    EXPECT_TRUE(LoadBytes(copy, saved));
    copy.seed = proto.seed;  // drawn afresh by every load
    EXPECT_EQ(SavedBytes(copy), saved);
    return copy;
}

// The erosion by its plain kernels and the plain blur.
std::vector<std::vector<float>> ExpectedCoast(std::vector<float> h, const float* hardness,
                                              int32_t w, const CoastSetup& setup, bool smooth,
                                              int32_t radius) {
    const int32_t rows = static_cast<int32_t>(h.size()) / w;
    std::vector<float> water(h.size()), beach(h.size());
    for (int32_t y = 0; y < rows; ++y)
        ErodeCoastRow(setup, h.data() + y * w, hardness ? hardness + y * w : nullptr,
                      water.data() + y * w, beach.data() + y * w, w, VectorPath::Plain);
    if (smooth) {
        std::vector<float> blurred = h;
        if (radius > 0) {
            reference::Field field(w, rows, 1);
            field.v = h;
            const std::vector<float> weights = reference::GaussianWeights(radius);
            blurred =
                reference::Reference(reference::Reference(field, kBlurGaussian, radius, 0, weights),
                                     kBlurGaussian, radius, 1, weights)
                    .v;
        }
        BlendUnderwater(h.data(), blurred.data(), water.data(), h.size());
    }
    return {h, water, beach};
}

TEST_F(NaturalTest, CoastErodesAsItsKernelsOnEveryExtentAndThreadCount) {
    const struct {
        double x1;
        int32_t zone;
        float power;
        bool smooth, hardness, global;
        int32_t amount, radius;  // radius: amount at the grid's density
    } cases[] = {
        {1.0, kCoastSmooth, 0.5f, true, false, false, 16, 4},   // 67 samples per unit
        {0.25, kCoastCliffs, 0.8f, true, true, false, 4, 4},    // 268
        {0.01, kCoastSmooth, 1.0f, true, false, true, 16, 66},  // 6700: cut to the width
        {1.0, kCoastCliffs, 0.0f, false, true, true, 4, 0},
        {0.0, kCoastSmooth, 0.3f, true, false, false, 16, 0},  // no extent: no blur
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("extent " + std::to_string(c.x1) + " zone " + std::to_string(c.zone));
        auto network = MakeNetwork(67, 29);
        network->world.x1 = c.x1;
        network->globals.waterLevel = 0.3f;
        network->AddDevice("ramp", "Test Ramp");
        GetParameter(&network->Get("ramp"), "Waves")->i = 1;
        network->AddDevice("hard", "Test Ramp");
        Device& proto = network->AddDevice("proto", "Coast Erosion");
        GetParameter(&proto, "Use Global Water Level")->i = c.global;
        GetParameter(&proto, "Water Level")->f = 0.45f;
        GetParameter(&proto, "Beach Size")->f = 0.2f;
        GetParameter(&proto, "Transition Zone")->i = c.zone;
        GetParameter(&proto, "Transition Power")->f = c.power;
        GetParameter(&proto, "Smooth Underwater Features")->i = c.smooth;
        GetParameter(&proto, "Smoothing Amount")->i = c.amount;
        Device& coast = LoadedCopy(*network, proto, "coast", "COER\x01");
        network->Connect("ramp", 0, "coast", 0);
        if (c.hardness) network->Connect("hard", 0, "coast", 1);
        // Only a device on the global level depends on it, and it greys out its own.
        EXPECT_EQ(coast.OptionQuery3(Orogen::kGlobalWaterLevel), c.global);
        EXPECT_FALSE(coast.OptionQuery3(Orogen::kGlobalLightDirection));
        EXPECT_EQ(Orogen::ParameterEnabled(&coast, "Water Level"), !c.global);
        EXPECT_EQ(Orogen::ParameterEnabled(&coast, "Smoothing Amount"), c.smooth);

        const auto got = BuildEveryWay(*network, "coast");
        const float level = (c.global ? 0.3f : 0.45f) + 0.0004f;
        // The level used is what the panel shows afterwards.
        EXPECT_EQ(GetParameter(&coast, "Water Level")->f, c.global ? level : 0.45f);
        const std::vector<float> hard = SamplesOf(network->Output("hard", 0));
        const auto want =
            ExpectedCoast(SamplesOf(network->Output("ramp", 0)), c.hardness ? hard.data() : nullptr,
                          67, MakeCoastSetup(level, 0.2f, c.zone, c.power), c.smooth, c.radius);
        for (size_t k = 0; k < 3; ++k) EXPECT_TRUE(SameBits(got[k], want[k])) << "output " << k;
        EXPECT_EQ(network->Output("coast", 2)->name, std::string("Coast Erosion: slot 2"));
    }
}

// The snow by its plain kernels.
std::vector<std::vector<float>> ExpectedSnow(std::vector<float> t, const float* fallMap, int32_t w,
                                             const SnowScale& s, float line, bool taper,
                                             bool linear) {
    SnowPass pass{nullptr,
                  nullptr,
                  nullptr,
                  w,
                  static_cast<int32_t>(t.size()) / w,
                  {fallMap, s.fall},
                  {nullptr, s.evaporation},
                  0.0f,
                  line};
    pass.terrain = t.data();
    std::vector<float> snow(t.size());
    for (size_t i = 0; i < t.size(); ++i) snow[i] = pass.fall.At(i);
    std::vector<float> next = snow;
    for (int32_t k = 0; k < s.passes; ++k) {
        pass.taper = taper ? 1.0f - static_cast<float>(k) / s.passes : 0.0f;
        pass.snow = snow.data();
        pass.next = next.data();
        SnowPassRows(pass, 1, pass.height - 2, VectorPath::Plain);
        snow.swap(next);
    }
    AddSnow(t.data(), snow.data(), t.size(), s.evaporation);
    Orogen::ClampHeights(t.data(), t.size());
    if (linear)
        Orogen::ClampHeights(snow.data(), snow.size());
    else
        LogDepthMask(snow.data(), snow.size(), 30.0f);
    return {t, snow};
}

TEST_F(NaturalTest, SnowBuildsAsItsKernelsOnEveryThreadCount) {
    const struct {
        int32_t width, height;
        double x1;
        int32_t amount;
        float balance, line;
        bool taper, linear, map;
        int32_t passes;
    } cases[] = {
        {70, 45, 1.0, 15, 1.0f, 0.01f, false, false, false, 16},
        {64, 40, 0.5, 20, 0.3f, 0.6f, true, true, true, 40},
        {33, 9, 1.0, 0, 0.5f, 0.2f, false, true, false, 0},     // no pass at all
        {20, 2, 1.0, 50, 0.5f, 0.2f, false, false, true, 15},   // no interior row
        {30, 30, 0.0, 50, 0.0f, 0.2f, false, false, false, 0},  // no extent
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        auto network = MakeNetwork(c.width, c.height);
        network->world.x1 = c.x1;
        network->AddDevice("ramp", "Test Ramp");
        GetParameter(&network->Get("ramp"), "Waves")->i = 1;
        network->AddDevice("fall", "Test Ramp");
        Device& proto = network->AddDevice("proto", "Snow");
        GetParameter(&proto, "Snow Amount")->i = c.amount;
        GetParameter(&proto, "Evaporative Balance")->f = c.balance;
        GetParameter(&proto, "Snow Line")->f = c.line;
        GetParameter(&proto, "Taper Snowfall")->i = c.taper;
        GetParameter(&proto, "Linear Depthmask")->i = c.linear;
        LoadedCopy(*network, proto, "snow", "SNOW\x01");
        network->Connect("ramp", 0, "snow", 0);
        if (c.map) network->Connect("fall", 0, "snow", 1);
        const auto got = BuildEveryWay(*network, "snow");
        const std::vector<float> fall = SamplesOf(network->Output("fall", 0));
        const SnowScale scale =
            ScaleSnow(network->Output("snow", 0)->grid, 0.5f, c.balance, c.amount);
        EXPECT_EQ(scale.passes, c.passes);
        const auto want =
            ExpectedSnow(SamplesOf(network->Output("ramp", 0)), c.map ? fall.data() : nullptr,
                         c.width, scale, c.line, c.taper, c.linear);
        EXPECT_TRUE(SameBits(got[0], want[0]) && SameBits(got[1], want[1]));
        for (float v : got[0]) ASSERT_TRUE(v >= 0.0f && v <= 1.0f);
    }
}

TEST_F(NaturalTest, SnowOnFlatGroundGrowsByTheFallOnEveryThreadCount) {
    // 65 samples per unit: 15 passes. Flat ground above the snow line, no
    // evaporation: cells more than 15 samples from the border (which keeps
    // the first snowfall) gain the fall each pass; tapered, nothing in the
    // first and (N-1)/N of it in the last.
    for (bool taper : {false, true}) {
        auto network = MakeNetwork(65, 40);
        network->AddDevice("flat", "Constant");
        GetParameter(&network->Get("flat"), "Height")->f = 0.5f;
        Device& snow = network->AddDevice("snow", "Snow");
        GetParameter(&snow, "Evaporative Balance")->f = 0.0f;
        GetParameter(&snow, "Linear Depthmask")->i = 1;
        GetParameter(&snow, "Taper Snowfall")->i = taper;
        network->Connect("flat", 0, "snow", 0);
        const auto got = BuildEveryWay(*network, "snow");
        const float fall = 0.5f * 0.64f / 65.0f;
        float even = fall;
        for (int k = 0; k < 15; ++k)
            even = even + fall * (taper ? 1.0f - (1.0f - k / 15.0f) : 1.0f);
        for (size_t i = 0; i < got[1].size(); ++i) {
            const size_t x = i % 65, y = i / 65;
            const bool border = x == 0 || y == 0 || x == 64 || y == 39;
            if (border || (x > 15 && x < 49 && y > 15 && y < 24)) {
                ASSERT_EQ(got[1][i], border ? fall : even) << x << "," << y;
                ASSERT_EQ(got[0][i], 0.5f + got[1][i]) << x << "," << y;
            }
        }
    }
}

TEST_F(NaturalTest, CancelledSnowPublishesNothingWithOrWithoutWorkers) {
    const int64_t packetsBefore = static_cast<int64_t>(HostPacket::Live());
    {
        auto network = MakeNetwork(65, 40);
        network->AddDevice("ramp", "Test Ramp");
        network->AddDevice("snow", "Snow");
        network->Connect("ramp", 0, "snow", 0);
        for (uint32_t workers : {0u, 2u}) {
            std::vector<uint32_t> passes;
            BuildOptions options;
            options.workers = workers;
            options.onProgress = [&](const std::string& id, uint32_t done, uint32_t total) {
                if (id != "snow") return true;
                passes.push_back(done);
                EXPECT_EQ(total, 15u);
                return done < 4;
            };
            const BuildReport report = network->Build(options);
            EXPECT_TRUE(report.cancelled);
            EXPECT_EQ(passes, (std::vector<uint32_t>{0, 1, 2, 3, 4}));
            EXPECT_NE(report.Find("snow")->status, BuildStatus::Built);
            EXPECT_FALSE(network->Output("snow", 0) || network->Output("snow", 1));
        }
    }
    EXPECT_EQ(static_cast<int64_t>(HostPacket::Live()), packetsBefore);
}

}  // namespace
}  // namespace basekit::host::testing
