// Colorize, Normal-Map Maker, Channel Combiner and Channel Splitter in
// networks of the reference host: builds on one thread and on several against
// the plain formulas and the exact values of flat and grey cases, port labels
// that follow "Channel Type", saved state and missing inputs.

#include "framework/Terrain.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using basekit::testing::LoadBytes;
using basekit::testing::SavedBytes;
using Orogen::Device;
using Orogen::GetParameter;

class ConverterTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        host->RegisterHostType(&Orogen::CreateDevice<TestColors>, 1, 8);
        host->Workers().Resize(3);
    }

    // Builds on the calling thread alone, then with three workers: every
    // output must have the same bits. Returns output `output` of `id`.
    std::vector<float> BuildBothWays(Network& network, const std::string& id, uint32_t output = 0) {
        BuildReport alone = network.Build({});
        EXPECT_EQ(alone.Find(id)->status, BuildStatus::Built) << alone.Find(id)->message;
        const auto single = AllOutputs(network);
        BuildOptions options;
        options.workers = 3;
        network.Build(options);
        ExpectSameOutputs(single, AllOutputs(network));
        return SamplesOf(network.Output(id, output));
    }
};

void AddConstant(Network& network, const std::string& id, float height) {
    network.AddDevice(id, "Constant");
    GetParameter(&network.Get(id), "Height")->f = height;
}

TEST_F(ConverterTest, ColorizeInParallelIsTheRampBetweenItsColours) {
    const struct {
        int32_t low, high;
        const char* expect;
    } cases[] = {
        {0x000000, 0xFFFFFF, "grey"}, {0x3366CC, 0x3366CC, "flat"}, {0xFF8000, 0x0040FF, "ramp"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expect);
        auto network = MakeNetwork(31, 19);
        network->AddDevice("ramp", "Test Ramp");
        GetParameter(&network->Get("ramp"), "Waves")->i = 1;
        Device& colorize = network->AddDevice("c", "Colorize");
        if (c.low != 0x000000) GetParameter(&colorize, "Color #1")->i = c.low;
        if (c.high != 0xFFFFFF) GetParameter(&colorize, "Color #2")->i = c.high;
        network->Connect("ramp", 0, "c", 0);
        const std::vector<float> got = BuildBothWays(*network, "c");
        const std::vector<float> h = SamplesOf(network->Output("ramp", 0));
        ASSERT_EQ(got.size(), 3 * h.size());
        EXPECT_EQ(network->Output("c", 0)->GetKind(), Orogen::kBitmap);
        EXPECT_STREQ(network->Output("c", 0)->name, "Colorize: slot 0");
        // Black to white gives each height three times, one colour twice a
        // flat image: both follow from the formula with channel / 255.
        auto channel = [](int32_t colour, int k) {
            return static_cast<float>((colour >> (16 - 8 * k)) & 0xFF) / 255.0f;
        };
        std::vector<float> ramp;
        for (float v : h)
            for (int k = 0; k < 3; ++k)
                ramp.push_back(channel(c.low, k) + (channel(c.high, k) - channel(c.low, k)) * v);
        EXPECT_TRUE(SameBits(got, ramp));
    }
}

TEST_F(ConverterTest, NormalMapInParallelFollowsSlopesAndFlips) {
    // Gradient at direction 0 rises along +x only, 1 per world unit; with the
    // default flips R falls below 0.5, with "Flip X" it rises above.
    const struct {
        const char* source;
        bool flipX, flipY;
        int rSide, gSide;  // -1 below 0.5, 0 exactly 0.5, +1 above
    } cases[] = {{"flat", false, false, 0, 0},   {"flat", true, true, 0, 0},
                 {"slope", false, false, -1, 0}, {"slope", true, false, 1, 0},
                 {"slope", false, true, -1, 0},  {"waves", false, true, 2, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.source << " flips " << c.flipX << c.flipY);
        auto network = MakeNetwork(33, 21);
        network->world.verticalScale = 0.5;
        const std::string source = c.source;
        if (source == "flat") AddConstant(*network, "in", 0.3f);
        if (source == "slope") network->AddDevice("in", "Gradient");
        if (source == "waves") {
            network->AddDevice("in", "Test Ramp");
            GetParameter(&network->Get("in"), "Waves")->i = 1;
        }
        Device& normals = network->AddDevice("n", "Normal-Map Maker");
        GetParameter(&normals, "Flip X")->i = c.flipX;
        GetParameter(&normals, "Flip Y")->i = c.flipY;
        network->Connect("in", 0, "n", 0);
        const std::vector<float> got = BuildBothWays(*network, "n");
        const std::vector<float> h = SamplesOf(network->Output("in", 0));
        Orogen::Grid grid = network->world.ToGrid();
        std::vector<float> expected;
        for (int32_t y = 0; y < 21; ++y)
            for (int32_t x = 0; x < 33; ++x) {
                float gx, gy, n[3];
                Orogen::HeightSlope(h.data(), grid, x, y, gx, gy);
                Orogen::SlopeNormal(gx, gy, n);
                expected.push_back(std::clamp((c.flipX ? 0.5f : -0.5f) * n[0] + 0.5f, 0.0f, 1.0f));
                expected.push_back(std::clamp((c.flipY ? 0.5f : -0.5f) * n[1] + 0.5f, 0.0f, 1.0f));
                expected.push_back(std::clamp(0.5f * n[2] + 0.5f, 0.0f, 1.0f));
            }
        EXPECT_TRUE(SameBits(got, expected));
        auto side = [](float v) { return v < 0.5f ? -1 : v > 0.5f ? 1 : 0; };
        for (size_t i = 0; i < got.size(); i += 3) {
            if (c.rSide != 2) {
                ASSERT_EQ(side(got[i]), c.rSide) << i;
            }
            if (c.gSide != 2) {
                ASSERT_EQ(side(got[i + 1]), c.gSide) << i;
            }
            ASSERT_GE(got[i + 2], source == "flat" ? 1.0f : 0.5f);
        }
    }
}

TEST_F(ConverterTest, ChannelDevicesInParallelCombineAndSplit) {
    const struct {
        const char* name;
        const char* source;  // "hsb111": combiner in HSB mode of three constants 1
        int32_t splitType;
        float expected[3];  // every pixel of the split (NaN: compare with the source)
    } cases[] = {
        {"rgb round trip", "colors", 0, {NAN, NAN, NAN}},
        {"hsb 1,1,1", "hsb111", 0, {1.0f, 0.0f, NAN}},
        {"grey splits into (0, 0, r)", "grey", 1, {0.0f, 0.0f, NAN}},
        {"black splits into zeros", "black", 1, {0.0f, 0.0f, 0.0f}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto network = MakeNetwork(29, 23);
        const std::string source = c.source;
        Device& combine = network->AddDevice("combine", "Channel Combiner");
        if (source == "colors") {
            // Split, combine, split again: the second split gives the first one's bits.
            network->AddDevice("colors", "Test Colors");
            network->AddDevice("first", "Channel Splitter");
            network->Connect("colors", 0, "first", 0);
            for (uint32_t k = 0; k < 3; ++k) network->Connect("first", k, "combine", k);
        } else if (source == "hsb111") {
            GetParameter(&combine, "Channel Type")->i = 1;
            AddConstant(*network, "one", 1.0f);
            for (uint32_t k = 0; k < 3; ++k) network->Connect("one", 0, "combine", k);
        } else {
            network->AddDevice("ramp", "Test Ramp");
            GetParameter(&network->Get("ramp"), "Waves")->i = 1;
            AddConstant(*network, "zero", 0.0f);
            for (uint32_t k = 0; k < 3; ++k)
                network->Connect(source == "grey" ? "ramp" : "zero", 0, "combine", k);
        }
        Device& split = network->AddDevice("split", "Channel Splitter");
        GetParameter(&split, "Channel Type")->i = c.splitType;
        network->Connect("combine", 0, "split", 0);
        BuildBothWays(*network, "split");

        const std::vector<float> rgb = SamplesOf(network->Output("combine", 0));
        ASSERT_EQ(rgb.size(), 3u * 29 * 23);
        if (source == "hsb111")
            for (size_t i = 0; i < rgb.size(); i += 3) {
                ASSERT_EQ(rgb[i], 1.0f);
                ASSERT_EQ(rgb[i + 1], 0.0f);
                ASSERT_NEAR(rgb[i + 2], 0.0016667f, 1e-6f);
            }
        for (uint32_t k = 0; k < 3; ++k) {
            const Orogen::PacketRef out = network->Output("split", k);
            EXPECT_EQ(out->maskFlag, 1);
            EXPECT_EQ(out->GetKind(), Orogen::kHeightField);
            EXPECT_EQ(std::string(out->name), "Channel Splitter: slot " + std::to_string(k));
            const std::vector<float> got = SamplesOf(out);
            if (source == "colors") {
                EXPECT_TRUE(SameBits(rgb, SamplesOf(network->Output("colors", 0))));
                EXPECT_TRUE(SameBits(got, SamplesOf(network->Output("first", k))));
                continue;
            }
            for (size_t i = 0; i < got.size(); ++i) {
                const float want = std::isnan(c.expected[k]) ? rgb[3 * i + k] : c.expected[k];
                ASSERT_EQ(got[i], want) << "channel " << k << " sample " << i;
            }
        }
    }
}

TEST_F(ConverterTest, ChannelPortsAreRelabelledAfterLoadAndAcceptedDialogsOnly) {
    const std::vector<std::string> rgb = {"Red", "Green", "Blue"};
    const std::vector<std::string> hsb = {"Hue", "Saturation", "Brightness"};
    for (const char* type : {"Channel Combiner", "Channel Splitter"}) {
        SCOPED_TRACE(type);
        auto network = MakeNetwork();
        Device& device = network->AddDevice("d", type);
        const bool combiner = std::string(type) == "Channel Combiner";
        auto labels = [&](Device& d) {
            std::vector<std::string> names;
            for (uint32_t k = 0; k < 3; ++k)
                names.push_back(combiner ? d.GetInputName(k) : d.GetOutputName(k));
            return names;
        };
        EXPECT_EQ(labels(device), rgb);
        EXPECT_FALSE(device.OptionQuery7());
        EXPECT_EQ(device.inputs[0]->kind, combiner ? Orogen::kHeightField : Orogen::kBitmap);

        // A value set without the dialog renames nothing.
        GetParameter(&device, "Channel Type")->i = 1;
        EXPECT_EQ(labels(device), rgb);
        GetParameter(&device, "Channel Type")->i = 0;

        const struct {
            int32_t answer;
            int32_t value;
            const std::vector<std::string>& names;
        } steps[] = {{-1, 1, rgb}, {0, 1, rgb}, {1, 1, hsb}, {-1, 0, hsb}, {1, 0, rgb}};
        for (const auto& step : steps) {
            host->Dialogs().Script(step.answer, [&step](Device& d) {
                GetParameter(&d, "Channel Type")->i = step.value;
            });
            EXPECT_EQ(network->EditSettings("d"), step.answer == 1);
            EXPECT_EQ(labels(device), step.names) << "answer " << step.answer;
        }

        // Loading a state of type 1 relabels; a failed load does not.
        GetParameter(&device, "Channel Type")->i = 1;
        const std::string saved = SavedBytes(device);
        Device& loaded = network->AddDevice("loaded", type);
        EXPECT_FALSE(LoadBytes(loaded, saved.substr(0, saved.size() - 3)));
        EXPECT_EQ(labels(loaded), rgb);
        ASSERT_TRUE(LoadBytes(loaded, saved));
        EXPECT_EQ(labels(loaded), hsb);
    }
}

TEST_F(ConverterTest, StateRoundTripsAndMissingInputsFail) {
    const struct {
        const char* type;
        const char* tag;
        const char* parameter;
        int32_t value;
    } cases[] = {{"Colorize", "COGR", "Color #2", 0x12AB34},
                 {"Normal-Map Maker", "PRNO", "Flip Y", 1},
                 {"Channel Splitter", "PRCS", "Channel Type", 1},
                 {"Channel Combiner", "PRCC", "Channel Type", 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        auto network = MakeNetwork();
        Device& device = network->AddDevice("d", c.type);
        GetParameter(&device, c.parameter)->i = c.value;
        const std::string saved = SavedBytes(device);
        ASSERT_EQ(saved.substr(0, 5), std::string(c.tag) + '\x01');
        EXPECT_EQ(saved.substr(5, 4), "SPRK");  // no fields of its own

        Device& loaded = network->AddDevice("loaded", c.type);
        ASSERT_TRUE(LoadBytes(loaded, saved));
        EXPECT_EQ(GetParameter(&loaded, c.parameter)->i, c.value);
        loaded.seed = device.seed;  // drawn afresh by the host
        EXPECT_EQ(SavedBytes(loaded), saved);

        std::string other = saved;
        other[0] = 'X';
        EXPECT_FALSE(LoadBytes(network->AddDevice("other", c.type), other));

        // Nothing wired (the combiner: two of its three inputs): no output.
        AddConstant(*network, "k", 0.5f);
        if (device.inputs.size() == 3)
            for (uint32_t k = 0; k < 2; ++k) network->Connect("k", 0, "d", k);
        EXPECT_EQ(network->Build().Find("d")->status, BuildStatus::Failed);
        for (uint32_t k = 0; k < device.outputs.size(); ++k) EXPECT_FALSE(network->Output("d", k));
    }
}

}  // namespace
}  // namespace basekit::host::testing
