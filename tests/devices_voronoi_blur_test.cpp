// The Voronoi and Blur devices in networks of the reference host: builds
// against their kernels, on one thread and on several, dynamic ports, saved
// state and its older versions.

#include <cmath>

#include "ReferenceKernels.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using basekit::testing::LoadBytes;
using basekit::testing::SavedBytes;
using Orogen::Device;
using Orogen::GetParameter;
using Orogen::PacketRef;

class DeviceTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        host->RegisterHostType(&Orogen::CreateDevice<TestColors>, 1, 8);
        host->Workers().Resize(3);
    }

    // Builds the network on the calling thread alone and with three workers;
    // both must give the same bits. Returns the samples of `id`'s output 0.
    std::vector<float> BuildBothWays(Network& network, const std::string& id) {
        BuildReport alone = network.Build({});
        EXPECT_EQ(alone.Find(id)->status, BuildStatus::Built) << alone.Find(id)->message;
        std::vector<float> single = SamplesOf(network.Output(id, 0));
        BuildOptions options;
        options.workers = 3;
        BuildReport threaded = network.Build(options);
        EXPECT_EQ(threaded.Find(id)->status, BuildStatus::Built);
        EXPECT_TRUE(SameBits(SamplesOf(network.Output(id, 0)), single)) << id;
        return single;
    }
};

// The device's settings through the plain search, clamped.
std::vector<float> ExpectedVoronoi(Device& device, const World& world, const float* heights) {
    const auto xs = reference::Positions(world.x0, world.x1, world.width);
    const auto ys = reference::Positions(world.y0, world.y1, world.height);
    const double s = 1.0 / GetParameter(&device, "Scale")->f;
    const double z = GetParameter(&device, "Shape")->f;
    const int style = GetParameter(&device, "Style")->i;
    const int m = GetParameter(&device, "Distance Function")->i;
    const float a = GetParameter(&device, "Distortion Direction")->i * 3.1415927f / 180.0f;
    const float amount = GetParameter(&device, "Distortion Amount")->f;
    const double ax = std::cos(a) * amount, ay = std::sin(a) * amount;
    const auto seed = static_cast<uint32_t>(GetParameter(&device, "Random Seed")->i);
    std::vector<float> out;
    for (int32_t j = 0; j < world.height; ++j) {
        for (int32_t i = 0; i < world.width; ++i) {
            double X = (xs[i] - device.anchor[0]) * s, Y = (ys[j] - device.anchor[1]) * s;
            if (heights) {
                const double h = heights[static_cast<size_t>(j) * world.width + i];
                X = X + h * ax;
                Y = Y + h * ay;
            }
            float v = reference::RefStyle(reference::RefSearch(X, Y, z, seed, m), style);
            out.push_back(std::isnan(v) ? 1.0f : std::clamp(v, 0.0f, 1.0f));
        }
    }
    return out;
}

TEST_F(DeviceTest, VoronoiBuildsItsKernelOverTheWorld) {
    const struct {
        int32_t style, distance;
        float scale, shape;
    } cases[] = {{kCellF1, 0, 1.0f, 0.0f},       {kCellF2MinusF1, 1, 0.4f, 0.7f},
                          {kCellF1Cells, 2, 2.5f, -1.2f}, {kCellF4, 3, 0.05f, 2.0f},
                          {kCellF3Cells, 0, 0.3f, 0.5f}};
    for (const auto& c : cases) {
        SCOPED_TRACE("style " + std::to_string(c.style));
        auto network = MakeNetwork();
        network->world = World{-2.0, 1.0, 6.0, 3.5, 70, 41, 1.0};
        Device& voronoi = network->AddDevice("v", "Voronoi");
        GetParameter(&voronoi, "Style")->i = c.style;
        GetParameter(&voronoi, "Distance Function")->i = c.distance;
        GetParameter(&voronoi, "Scale")->f = c.scale;
        GetParameter(&voronoi, "Shape")->f = c.shape;
        GetParameter(&voronoi, "Random Seed")->i = 4242;
        voronoi.anchor[0] = 1.25f;
        voronoi.anchor[1] = -0.5f;
        const std::vector<float> got = BuildBothWays(*network, "v");
        EXPECT_TRUE(SameBits(got, ExpectedVoronoi(voronoi, network->world, nullptr)));
        for (float v : got) ASSERT_TRUE(v >= 0.0f && v <= 1.0f);
    }
}

TEST_F(DeviceTest, VoronoiDistortionInputComesAndGoesWithItsSetting) {
    auto network = MakeNetwork();
    network->world.width = 45;
    network->world.height = 33;
    Device& voronoi = network->AddDevice("v", "Voronoi");
    network->AddDevice("ramp", "Test Ramp");
    GetParameter(&network->Get("ramp"), "Waves")->i = 1;
    network->AddDevice("blur", "Blur");
    network->Connect("v", 0, "blur", 0);
    EXPECT_TRUE(voronoi.inputs.empty());

    host->Dialogs().Script(1, [](Device& d) {
        GetParameter(&d, "Distortion Enable")->i = 1;
        GetParameter(&d, "Distortion Amount")->f = 0.8f;
        GetParameter(&d, "Distortion Direction")->i = 125;
    });
    ASSERT_TRUE(network->EditSettings("v"));
    ASSERT_EQ(voronoi.inputs.size(), 1u);
    EXPECT_EQ(voronoi.inputs[0]->role, Orogen::kRoleOptional);
    EXPECT_EQ(voronoi.inputs[0]->kind, Orogen::kHeightField);
    EXPECT_STREQ(voronoi.GetInputName(0), "Distortion Map");
    EXPECT_STREQ(voronoi.GetInputName(1), "Unused");

    // Enabled with nothing wired: the pattern is not shifted.
    const std::vector<float> unshifted = BuildBothWays(*network, "v");
    EXPECT_TRUE(SameBits(unshifted, ExpectedVoronoi(voronoi, network->world, nullptr)));

    network->Connect("ramp", 0, "v", 0);
    const std::vector<float> shifted = BuildBothWays(*network, "v");
    const std::vector<float> ramp = SamplesOf(network->Output("ramp", 0));
    EXPECT_TRUE(SameBits(shifted, ExpectedVoronoi(voronoi, network->world, ramp.data())));
    EXPECT_FALSE(SameBits(shifted, unshifted));

    // Switching it off disconnects and removes the input; what the output
    // feeds stays linked.
    host->Dialogs().Script(1, [](Device& d) { GetParameter(&d, "Distortion Enable")->i = 0; });
    ASSERT_TRUE(network->EditSettings("v"));
    EXPECT_TRUE(voronoi.inputs.empty());
    const std::vector<Link> links = network->Links();
    ASSERT_EQ(links.size(), 1u);
    EXPECT_EQ(links[0].from, "v");
    EXPECT_EQ(links[0].to, "blur");
    EXPECT_TRUE(SameBits(BuildBothWays(*network, "v"), unshifted));

    // A cancelled dialog changes nothing.
    host->Dialogs().Script(-1, [](Device& d) { GetParameter(&d, "Distortion Enable")->i = 1; });
    EXPECT_FALSE(network->EditSettings("v"));
    EXPECT_TRUE(voronoi.inputs.empty());
    EXPECT_EQ(GetParameter(&voronoi, "Distortion Enable")->i, 0);
}

TEST_F(DeviceTest, VoronoiRandomizeStoresASeedAndTellsTheOwner) {
    auto network = MakeNetwork();
    Device& voronoi = network->AddDevice("v", "Voronoi");
    network->ClearEvents();
    GetParameter(&voronoi, "Random Seed")->i = 40000;  // out of range: any fresh seed differs
    EXPECT_TRUE(voronoi.OptionQuery2());
    EXPECT_LE(GetParameter(&voronoi, "Random Seed")->i, 32767);
    EXPECT_GE(GetParameter(&voronoi, "Random Seed")->i, 0);
    bool edited = false;
    for (const OwnerEvent& e : network->Events("v")) edited |= e.kind == OwnerEvent::Edited;
    EXPECT_TRUE(edited);
    // The action parameter's callback does the same.
    GetParameter(&voronoi, "Random Seed")->i = 40000;
    auto action = reinterpret_cast<bool (*)(Device*)>(GetParameter(&voronoi, "Randomize")->p);
    ASSERT_NE(action, nullptr);
    EXPECT_TRUE(action(&voronoi));
    EXPECT_LE(GetParameter(&voronoi, "Random Seed")->i, 32767);
}

TEST_F(DeviceTest, VoronoiStateRoundTripsAndOldScalesAreConverted) {
    auto network = MakeNetwork();
    Device& voronoi = network->AddDevice("v", "Voronoi");
    GetParameter(&voronoi, "Scale")->f = 6.0f;
    GetParameter(&voronoi, "Style")->i = kCellF3MinusF1;
    GetParameter(&voronoi, "Distortion Enable")->i = 1;
    GetParameter(&voronoi, "Random Seed")->i = 31000;
    const std::string saved = SavedBytes(voronoi);
    ASSERT_EQ(saved.substr(0, 5), std::string("CELL\x02", 5));

    const struct {
        uint8_t version;
        float scale, minimum, maximum;
    } cases[] = {{2, 6.0f, 0.00625f, 24.0f},
                          {1, 6.0f * 0.00390625f, 0.015625f, 16.0f},
                          {0, 6.0f * 0.00390625f, 0.015625f, 16.0f}};
    for (const auto& c : cases) {
        SCOPED_TRACE("version " + std::to_string(c.version));
        std::string bytes = saved;
        bytes[4] = static_cast<char>(c.version);
        Device& loaded = network->AddDevice(std::to_string(c.version), "Voronoi");
        ASSERT_TRUE(LoadBytes(loaded, bytes));
        const Orogen::ParamRecord& scale =
            loaded.params
                .records[static_cast<size_t>(Orogen::FindParameter(loaded.params, "Scale"))];
        EXPECT_EQ(scale.value.f, c.scale);
        EXPECT_EQ(scale.minimum.f, c.minimum);
        EXPECT_EQ(scale.maximum.f, c.maximum);
        EXPECT_EQ(GetParameter(&loaded, "Style")->i, kCellF3MinusF1);
        EXPECT_EQ(GetParameter(&loaded, "Random Seed")->i, 31000);
        // Distortion on: the input is declared again.
        ASSERT_EQ(loaded.inputs.size(), 1u);
        EXPECT_EQ(loaded.inputs[0]->role, Orogen::kRoleOptional);
        EXPECT_NE(GetParameter(&loaded, "Randomize")->p, nullptr);
        if (c.version == 2) {
            loaded.seed = voronoi.seed;  // the one field the host draws afresh
            EXPECT_EQ(SavedBytes(loaded), saved);
        }
    }

    EXPECT_FALSE(
        LoadBytes(network->AddDevice("cut", "Voronoi"), saved.substr(0, saved.size() / 2)));
}

TEST_F(DeviceTest, VoronoiCopyTakesTheOtherDevicesPorts) {
    auto network = MakeNetwork();
    Device& from = network->AddDevice("from", "Voronoi");
    Device& to = network->AddDevice("to", "Voronoi");
    GetParameter(&from, "Distortion Enable")->i = 1;
    GetParameter(&from, "Scale")->f = 3.5f;
    ASSERT_TRUE(LoadBytes(from, SavedBytes(from)));  // declares the input
    to.CopyFrom(&from);
    ASSERT_EQ(to.inputs.size(), 1u);
    EXPECT_EQ(to.outputs.size(), 1u);
    EXPECT_EQ(to.inputs[0]->role, Orogen::kRoleOptional);
    EXPECT_EQ(GetParameter(&to, "Scale")->f, 3.5f);
}

// What the device should produce: both passes (or the one motion pass) of
// the plain convolution.
std::vector<float> ExpectedBlur(const std::vector<float>& in, int32_t w, int32_t h, int32_t c,
                                int32_t type, int32_t radius, float degrees) {
    reference::Field field(w, h, c);
    field.v = in;
    const std::vector<float> weights = reference::GaussianWeights(radius);
    if (type == kBlurMotion) {
        return reference::MotionReference(field, radius, std::cos(degrees * 0.017453292f),
                                          std::sin(degrees * 0.017453292f), weights)
            .v;
    }
    const reference::Field across = reference::Reference(field, type, radius, 0, weights);
    return reference::Reference(across, type, radius, 1, weights).v;
}

TEST_F(DeviceTest, BlurBuildsEveryTypeOnFieldsAndBitmaps) {
    const struct {
        const char* source;
        int32_t channels, type, radius;
        float direction;
    } cases[] = {
        {"Test Ramp", 1, kBlurUniform, 3, 0.0f},    {"Test Ramp", 1, kBlurGaussian, 7, 0.0f},
        {"Test Ramp", 1, kBlurMotion, 5, 33.0f},    {"Test Colors", 3, kBlurUniform, 2, 0.0f},
        {"Test Colors", 3, kBlurGaussian, 9, 0.0f}, {"Test Colors", 3, kBlurMotion, 4, 150.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.source) + " type " + std::to_string(c.type));
        auto network = MakeNetwork(61, 53);
        network->AddDevice("src", c.source);
        if (c.channels == 1) GetParameter(&network->Get("src"), "Waves")->i = 1;
        Device& blur = network->AddDevice("b", "Blur");
        GetParameter(&blur, "Blur type")->i = c.type;
        GetParameter(&blur, "Blur radius")->i = c.radius;
        GetParameter(&blur, "Scale-independant")->i = 0;
        GetParameter(&blur, "Direction")->f = c.direction;
        network->Connect("src", 0, "b", 0);
        const std::vector<float> got = BuildBothWays(*network, "b");
        const std::vector<float> in = SamplesOf(network->Output("src", 0));
        EXPECT_TRUE(SameBits(got, ExpectedBlur(in, 61, 53, c.channels, c.type, c.radius,
                                               c.direction)));
        EXPECT_FALSE(SameBits(got, in));
        EXPECT_EQ(network->Output("b", 0)->GetKind(),
                  c.channels == 3 ? Orogen::kBitmap : Orogen::kHeightField);
    }
}

TEST_F(DeviceTest, BlurRadiusFollowsTheDensityAndTheWidth) {
    // Radius 8 at 256 samples per world unit stays 8, at 512 it is 16, at 32
    // it truncates to 1, at 16 to 0 (the input passes through); a radius past
    // the width is cut to width - 1.
    const struct {
        int32_t width, height;
        double extent;
        int32_t radius;
        bool independent;
        int32_t effective;
    } cases[] = {{64, 20, 0.25, 8, true, 8},   {64, 20, 0.125, 8, true, 16},
                          {64, 20, 2.0, 8, true, 1},    {64, 20, 4.0, 8, true, 0},
                          {64, 20, 1.0, 0, false, 0},   {17, 40, 1.0, 128, false, 16},
                          {64, 20, -1.0, 8, true, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE("extent " + std::to_string(c.extent) + " radius " + std::to_string(c.radius));
        auto network = MakeNetwork(c.width, c.height);
        network->world.x1 = network->world.x0 + c.extent;
        network->AddDevice("ramp", "Test Ramp");
        GetParameter(&network->Get("ramp"), "Waves")->i = 1;
        Device& blur = network->AddDevice("b", "Blur");
        GetParameter(&blur, "Blur type")->i = kBlurGaussian;
        GetParameter(&blur, "Blur radius")->i = c.radius;
        GetParameter(&blur, "Scale-independant")->i = c.independent ? 1 : 0;
        network->Connect("ramp", 0, "b", 0);
        const std::vector<float> got = BuildBothWays(*network, "b");
        const std::vector<float> in = SamplesOf(network->Output("ramp", 0));
        if (c.effective == 0) {
            EXPECT_TRUE(SameBits(got, in));
        } else {
            EXPECT_TRUE(SameBits(got, ExpectedBlur(in, c.width, c.height, 1, kBlurGaussian,
                                                   c.effective, 0.0f)));
        }
    }
}

TEST_F(DeviceTest, DevicesThatCannotBuildFailAlone) {
    const struct {
        const char* type;
        int32_t width, height;
        BuildStatus status;
    } cases[] = {{"Voronoi", 0, 0, BuildStatus::Exception}, {"Blur", 17, 13, BuildStatus::Failed}};
    for (const auto& c : cases) {
        auto network = MakeNetwork(c.width, c.height);
        network->AddDevice("d", c.type);
        EXPECT_EQ(network->Build().Find("d")->status, c.status) << c.type;
        EXPECT_FALSE(network->Output("d", 0)) << c.type;
    }
}

TEST_F(DeviceTest, BlurStateRoundTripsAndVersionOneTypesAreRenumbered) {
    auto network = MakeNetwork();
    Device& blur = network->AddDevice("b", "Blur");
    GetParameter(&blur, "Blur radius")->i = 42;
    GetParameter(&blur, "Direction")->f = 12.5f;
    // Version 1 had four types: 2 was the box, 3 motion blur.
    const struct {
        uint8_t version;
        int32_t stored, loaded;
    } cases[] = {{2, 0, 0}, {2, 1, 1}, {2, 2, 2}, {1, 0, 0},
                          {1, 1, 1}, {1, 2, 0}, {1, 3, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE("version " + std::to_string(c.version) + " type " + std::to_string(c.stored));
        GetParameter(&blur, "Blur type")->i = c.stored;
        std::string bytes = SavedBytes(blur);
        ASSERT_EQ(bytes.substr(0, 5), std::string("BLUR\x02", 5));
        bytes[4] = static_cast<char>(c.version);
        Device& loaded = network->AddDevice(std::to_string(c.version * 10 + c.stored), "Blur");
        ASSERT_TRUE(LoadBytes(loaded, bytes));
        EXPECT_EQ(GetParameter(&loaded, "Blur type")->i, c.loaded);
        EXPECT_EQ(GetParameter(&loaded, "Blur radius")->i, 42);
        EXPECT_EQ(GetParameter(&loaded, "Direction")->f, 12.5f);
    }
}

}  // namespace
}  // namespace basekit::host::testing
