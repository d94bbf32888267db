// Ramp, Expander, Equalizer, Bias/Gain, Add Noise, Height Splitter and
// Probability as devices: against their kernels at 1, 2 and 8 threads, with
// missing and unfit inputs, saved state, option queries, and seeds from the
// host's seed service (alone and through a network file).

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "TestDevices.h"
#include "TestHost.h"
#include "devices/filters/AddNoise.h"
#include "devices/filters/BiasGain.h"
#include "devices/filters/Equalizer.h"
#include "devices/filters/Expander.h"
#include "devices/filters/HeightSplitter.h"
#include "devices/filters/ProbScatter.h"
#include "devices/filters/Ramp.h"
#include "devices/generators/ConstantHeight.h"
#include "host/NetworkFile.h"
#include "host_test_support.h"

namespace basekit {
namespace {

using Outputs = std::vector<PacketRef>;
using Floats = std::vector<float>;

// The devices on the reference host's services; inputs are pushed onto ports
// linked to placeholder sources that never build.
class OpenFilterDevices : public testing::FrameworkTest {
  protected:
    PacketRef MakePacket(uint32_t kind, const Grid& grid, const Floats& values) {
        PacketRef packet = NewPacket(kind, grid);
        const size_t n = std::min<size_t>(values.size(), packet->PointCount() * packet->Channels());
        if (packet->samples) std::memcpy(packet->samples, values.data(), n * sizeof(float));
        return packet;
    }

    // Every output of `device` built over `grid` from a copy of `input` (null:
    // unconnected) with `workers` lent threads; empty when the build fails.
    Outputs BuildWith(Device& device, const PacketRef& input, const Grid& grid,
                      uint32_t workers = 0) {
        host.Workers().Resize(workers);
        ConstantHeight source;
        BuildResultSet results;
        if (input) {
            source.outputs[0]->Connect(device.inputs[0]);
            input->Duplicate(doGetDevice(&results, &device).pushedInputs[0]);
        }
        const int32_t status = device.Process(Context(grid, &results));
        device.inputs[0]->Disconnect(nullptr);
        if (status != 1) return {};
        return doGetDevice(&results, &device).outputs;
    }
};

Floats Random(size_t count, uint32_t seed) {
    Floats v(count);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (float& x : v) x = u(rng);
    return v;
}

using host::testing::SameBits;
using host::testing::SamplesOf;

using DevicePtr = std::unique_ptr<Device, DeviceDeleter>;
using Maker = DevicePtr (*)();

template <class T>
DevicePtr Make() {
    return DevicePtr(CreateDevice<T>(), &DestroyDevice);
}

// A new device with the parameters of `params`, JSON written as in a network file.
DevicePtr Made(Maker make, const char* params) {
    DevicePtr device = make();
    const nlohmann::json values = nlohmann::json::parse(params);
    for (const auto& [name, value] : values.items()) host::SetParameter(*device, name, value);
    return device;
}

constexpr int32_t kWidth = 41, kHeight = 23;

// `row(samples, y)` over every row of a kWidth x kHeight field.
void ByRows(float* v, const std::function<void(float*, int32_t)>& row) {
    for (int32_t y = 0; y < kHeight; ++y) row(v + y * kWidth, y);
}

// Each device saved and loaded into a new one, against its kernels over
// 41 x 23 samples on 4 x 2 world units, built with 1, 2 and 8 threads: the
// same bits every time.
TEST_F(OpenFilterDevices, LoadedDevicesMatchTheirKernelsAtOneTwoAndEightThreads) {
    const Grid grid{kWidth, kHeight, -1.0, 0.0, 3.0, 2.0};
    const size_t points = kWidth * kHeight;
    using Expected = std::vector<Floats>;  // {input}, turned into the outputs; v, n: its samples
    const struct {
        const char* name;
        Maker make;
        const char* params;  // as a network file writes them
        uint32_t kind;
        int32_t maskOutput;  // the output that is a mask, or -1
        std::function<void(Expected&, float* v, size_t n)> expect;
    } cases[] = {
        {"ramp smooth", Make<Ramp>, R"({"Start": 0.2, "End": 0.7, "Shape": "Smooth"})",
         kHeightField, -1,
         [](Expected&, float* v, size_t n) { RampSamples(v, n, 0.2f, 0.7f, kRampSmooth); }},
        {"ramp falling", Make<Ramp>, R"({"Start": 0.7, "End": 0.2})", kHeightField, -1,
         [](Expected&, float* v, size_t n) { RampSamples(v, n, 0.7f, 0.2f, kRampLinear); }},
        {"expander", Make<Expander>, R"({"Low": 0.1, "High": 0.9})", kHeightField, -1,
         [](Expected&, float* v, size_t n) {
             const auto range = FindHeightRange(v, n);
             ExpandSamples(v, n, range, 0.1f, 0.9f);
         }},
        {"equalizer", Make<Equalizer>, R"({"Strength": 0.6})", kHeightField, -1,
         [](Expected&, float* v, size_t n) { EqualizeSamples(v, n, 0.6f); }},
        {"bias/gain on a height field", Make<BiasGain>, R"({"Bias": 0.3, "Gain": 0.7})",
         kHeightField, -1,
         [](Expected&, float* v, size_t n) {
             BiasGainSamples(v, n, MakeBiasGainCurve(0.3f, 0.7f));
         }},
        {"bias/gain on a bitmap", Make<BiasGain>, R"({"Bias": 0.7, "Gain": 0.2})", kBitmap, -1,
         [](Expected&, float* v, size_t n) {
             BiasGainSamples(v, n, MakeBiasGainCurve(0.7f, 0.2f));
         }},
        {"uniform noise", Make<AddNoise>, R"({"Amount": 0.2, "Random Seed": 123})", kHeightField,
         -1,
         [](Expected&, float* v, size_t) {
             ByRows(v, [](float* r, int32_t y) {
                 AddNoiseRow(r, kWidth, y, 123, 0.2f, kNoiseUniform);
             });
         }},
        {"gaussian noise", Make<AddNoise>,
         R"({"Amount": 0.3, "Random Seed": 5, "Noise Type": "Gaussian"})", kHeightField, -1,
         [](Expected&, float* v, size_t) {
             ByRows(v, [](float* r, int32_t y) {
                 AddNoiseRow(r, kWidth, y, 5, 0.3f, kNoiseGaussian);
             });
         }},
        {"height splitter", Make<HeightSplitter>, R"({"Split Height": 0.4, "Transition": 0.1})",
         kHeightField, 2,
         [](Expected& o, float*, size_t n) {
             o.resize(3, Floats(n));  // v may move
             SplitSamples(o[0].data(), o[1].data(), o[2].data(), n, 0.4f, 0.1f);
         }},
        {"probability at every sample", Make<ProbScatter>, R"({"Density": 0.8, "Random Seed": 9})",
         kHeightField, 0,
         [](Expected&, float* v, size_t) {
             ByRows(v, [](float* r, int32_t y) { ScatterRow(r, r, kWidth, y, 9, 0.8f); });
         }},
        {"spaced probability", Make<ProbScatter>, R"({"Spacing": 0.15, "Random Seed": 31})",
         kHeightField, 0,
         [](Expected& o, float* v, size_t n) {
             Floats out(n, 0.0f);
             ScatterSpaced({v, kWidth, kHeight, 4.0f, 2.0f}, out.data(), 0.15f, 31, 1.0f);
             o[0] = out;
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Floats in = Random(points * (c.kind == kBitmap ? 3 : 1), 17);
        in[3] = 1.25f;
        in[8] = -0.5f;
        in[11] = std::numeric_limits<float>::quiet_NaN();
        const PacketRef input = MakePacket(c.kind, grid, in);
        Expected expected{in};
        c.expect(expected, expected[0].data(), expected[0].size());
        const DevicePtr configured = Made(c.make, c.params);
        const std::string tag(configured->identity.tag, 4);
        const std::string saved = testing::SavedBytes(*configured);
        EXPECT_EQ(saved.substr(0, 9), tag + "\x01SPRK");  // no fields of their own
        DevicePtr device = c.make();
        // Refused under another tag or cut short.
        EXPECT_FALSE(testing::LoadBytes(*device, "CELL" + saved.substr(4)));
        EXPECT_FALSE(testing::LoadBytes(*device, saved.substr(0, saved.size() - 3)));
        ASSERT_TRUE(testing::LoadBytes(*device, saved));
        device->seed = configured->seed;  // drawn afresh by every load
        EXPECT_EQ(testing::SavedBytes(*device), saved);
        if (std::strstr(c.params, "Random Seed")) {
            EXPECT_NE(GetParameter(device.get(), "Randomize")->p, nullptr);
        }
        const Outputs alone = BuildWith(*device, input, grid, 0);
        ASSERT_EQ(alone.size(), expected.size());
        for (size_t k = 0; k < alone.size(); ++k) {
            ASSERT_TRUE(alone[k]) << k;
            EXPECT_EQ(alone[k]->GetKind(), c.kind);
            EXPECT_TRUE(SameBits(SamplesOf(alone[k]), expected[k])) << "output " << k;
            EXPECT_EQ(alone[k]->maskFlag, static_cast<int32_t>(k) == c.maskOutput ? 1 : 0) << k;
        }
        for (uint32_t workers : {1u, 7u}) {
            const Outputs threaded = BuildWith(*device, input, grid, workers);
            ASSERT_EQ(threaded.size(), alone.size()) << workers;
            for (size_t k = 0; k < alone.size(); ++k)
                EXPECT_TRUE(SameBits(SamplesOf(threaded[k]), SamplesOf(alone[k])))
                    << workers << " " << k;
        }
    }
    EXPECT_EQ(LivePackets(), 0);
}

// At their defaults Ramp, Bias/Gain and Expander give a 0..1 field that holds
// 0 and 1 back unchanged.
TEST_F(OpenFilterDevices, DefaultsAreTheIdentityOnAUnitField) {
    const Grid grid{kWidth, kHeight};
    Floats in = Random(kWidth * kHeight, 3);
    in[0] = 0.0f;
    in[1] = 1.0f;
    for (const auto& make : {Make<Ramp>, Make<BiasGain>, Make<Expander>}) {
        DevicePtr device = make();
        const Outputs out = BuildWith(*device, MakePacket(kHeightField, grid, in), grid, 2);
        ASSERT_EQ(out.size(), 1u) << device->GetTypeName();
        EXPECT_TRUE(SameBits(SamplesOf(out[0]), in)) << device->GetTypeName();
    }
}

TEST_F(OpenFilterDevices, MissingOrUnfitInputsFailWithNoOutput) {
    const Grid grid{8, 8, 0.0, 0.0, 4.0, 4.0};
    for (Maker make : {Make<Ramp>, Make<Expander>, Make<Equalizer>, Make<BiasGain>, Make<AddNoise>,
                       Make<HeightSplitter>, Make<ProbScatter>}) {
        DevicePtr device = make();
        SCOPED_TRACE(device->GetTypeName());
        EXPECT_TRUE(BuildWith(*device, PacketRef(), grid).empty());
        EXPECT_TRUE(BuildWith(*device, NewPacket(kParameterPacket, Grid{1, 1}), grid).empty());
    }
    // A spacing far below a sample would make too many candidates.
    DevicePtr points = Make<ProbScatter>();
    for (const float spacing : {1e-5f, 0.5f}) {
        GetParameter(points.get(), "Spacing")->f = spacing;
        const Outputs out =
            BuildWith(*points, MakePacket(kHeightField, grid, Floats(64, 1.0f)), grid);
        EXPECT_EQ(out.empty(), spacing < 1e-3f) << spacing;
    }
    EXPECT_EQ(LivePackets(), 0);
}

TEST_F(OpenFilterDevices, OptionQueriesAndTheRandomizeOperation) {
    DevicePtr equalizer = Make<Equalizer>();
    EXPECT_FALSE(equalizer->OptionQuery8());
    GetParameter(equalizer.get(), "Strength")->f = 0.0f;
    EXPECT_TRUE(equalizer->OptionQuery8());
    EXPECT_FALSE(Make<Expander>()->OptionQuery8());
    for (const auto& make :
         {Make<Ramp>, Make<BiasGain>, Make<HeightSplitter>, Make<ProbScatter>, Make<AddNoise>}) {
        DevicePtr device = make();
        EXPECT_TRUE(device->OptionQuery8()) << device->GetTypeName();
        EXPECT_TRUE(device->OptionQuery7()) << device->GetTypeName();
        EXPECT_TRUE(device->OptionQuery9()) << device->GetTypeName();
    }
    EXPECT_FALSE(Make<ProbScatter>()->OptionQuery2());

    // Add Noise's OptionQuery2 and both devices' "Randomize" draw the next
    // seeds of the host's sequence and tell the owner.
    host.Seeds().SetStart(42);
    DevicePtr noise = Make<AddNoise>();
    DevicePtr points = Make<ProbScatter>();
    noise->owner = &recorder;
    points->owner = &recorder;
    EXPECT_TRUE(noise->OptionQuery2());
    auto randomize =
        reinterpret_cast<bool (*)(Device*)>(GetParameter(points.get(), "Randomize")->p);
    ASSERT_NE(randomize, nullptr);
    EXPECT_TRUE(randomize(points.get()));
    host.Seeds().SetStart(42);
    int32_t expected[4];
    for (int32_t& seed : expected) seed = host.Seeds().NextSeed() & 0x7FFF;
    EXPECT_EQ(GetParameter(noise.get(), "Random Seed")->i, expected[2]);
    EXPECT_EQ(GetParameter(points.get(), "Random Seed")->i, expected[3]);
    EXPECT_EQ(recorder.edited, (std::vector<Device*>{noise.get(), points.get()}));
    host.Seeds().SetStart(42);
    EXPECT_EQ(GetParameter(Make<AddNoise>().get(), "Random Seed")->i, expected[0]);
    EXPECT_EQ(GetParameter(Make<ProbScatter>().get(), "Random Seed")->i, expected[1]);
}

}  // namespace
}  // namespace basekit

namespace basekit::host::testing {
namespace {

// A network file with "seed" builds the same noise and points again; another
// seed builds others.
TEST_F(HostTest, SeededFiltersRepeatForTheSameFileSeed) {
    auto text = [](int seed) {
        return R"({"world": {"extent": [0, 0, 4, 2], "resolution": [65, 33]}, "seed": )" +
               std::to_string(seed) + R"(,
          "devices": [
            {"id": "ramp", "type": "Test Ramp", "params": {"Waves": true}},
            {"id": "noise", "type": "Add Noise", "params": {"Noise Type": "Gaussian"}},
            {"id": "points", "type": "Probability", "params": {"Spacing": 0.2}}
          ],
          "links": [{"from": "ramp", "to": "noise"}, {"from": "noise", "to": "points"}]})";
    };
    auto build = [&](int seed) {
        Project project = ParseNetwork(*host, text(seed), "");
        BuildOptions options;
        options.workers = 2;
        project.network->Build(options);
        return AllOutputs(*project.network);
    };
    const auto first = build(7);
    ExpectSameOutputs(first, build(7));
    const auto other = build(8);
    EXPECT_FALSE(SameBits(first.at("noise#0"), other.at("noise#0")));
    EXPECT_FALSE(SameBits(first.at("points#0"), other.at("points#0")));
}

}  // namespace
}  // namespace basekit::host::testing
