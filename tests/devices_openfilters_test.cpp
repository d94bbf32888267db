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

Floats Of(const PacketRef& packet) {
    return packet ? Floats(packet->samples,
                           packet->samples + packet->PointCount() * packet->Channels())
                  : Floats();
}

bool SameBits(const Floats& a, const Floats& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

using DevicePtr = std::unique_ptr<Device, DeviceDeleter>;

template <class T>
DevicePtr Make() {
    return DevicePtr(CreateDevice<T>(), &DestroyDevice);
}

void Set(Device& device, const char* name, float value) {
    GetParameter(&device, name)->f = value;
}
void SetInt(Device& device, const char* name, int32_t value) {
    GetParameter(&device, name)->i = value;
}

constexpr int32_t kWidth = 41, kHeight = 23;

// Each device against its kernels over 41 x 23 samples on 4 x 2 world units,
// built with 1, 2 and 8 threads: the same bits every time.
TEST_F(OpenFilterDevices, DevicesMatchTheirKernelsAtOneTwoAndEightThreads) {
    const Grid grid{kWidth, kHeight, -1.0, 0.0, 3.0, 2.0};
    const size_t points = kWidth * kHeight;
    using Expect = std::function<std::vector<Floats>(Floats)>;
    auto rows = [](Floats v, const std::function<void(float*, int32_t)>& row) {
        for (int32_t y = 0; y < kHeight; ++y) row(v.data() + y * kWidth, y);
        return v;
    };
    const struct {
        const char* name;
        std::function<DevicePtr()> make;
        uint32_t kind;
        Expect expect;
        int32_t maskOutput;  // the output that is a mask, or -1
    } cases[] = {
        {"ramp smooth",
         [] {
             DevicePtr d = Make<Ramp>();
             Set(*d, "Start", 0.2f), Set(*d, "End", 0.7f), SetInt(*d, "Shape", kRampSmooth);
             return d;
         },
         kHeightField,
         [](Floats v) {
             RampSamples(v.data(), v.size(), 0.2f, 0.7f, kRampSmooth);
             return std::vector<Floats>{v};
         },
         -1},
        {"ramp falling",
         [] {
             DevicePtr d = Make<Ramp>();
             Set(*d, "Start", 0.7f), Set(*d, "End", 0.2f);
             return d;
         },
         kHeightField,
         [](Floats v) {
             RampSamples(v.data(), v.size(), 0.7f, 0.2f, kRampLinear);
             return std::vector<Floats>{v};
         },
         -1},
        {"expander",
         [] {
             DevicePtr d = Make<Expander>();
             Set(*d, "Low", 0.1f), Set(*d, "High", 0.9f);
             return d;
         },
         kHeightField,
         [](Floats v) {
             ExpandSamples(v.data(), v.size(), FindHeightRange(v.data(), v.size()), 0.1f, 0.9f);
             return std::vector<Floats>{v};
         },
         -1},
        {"equalizer",
         [] {
             DevicePtr d = Make<Equalizer>();
             Set(*d, "Strength", 0.6f);
             return d;
         },
         kHeightField,
         [](Floats v) {
             EqualizeSamples(v.data(), v.size(), 0.6f);
             return std::vector<Floats>{v};
         },
         -1},
        {"bias/gain on a height field",
         [] {
             DevicePtr d = Make<BiasGain>();
             Set(*d, "Bias", 0.3f), Set(*d, "Gain", 0.7f);
             return d;
         },
         kHeightField,
         [](Floats v) {
             BiasGainSamples(v.data(), v.size(), MakeBiasGainCurve(0.3f, 0.7f));
             return std::vector<Floats>{v};
         },
         -1},
        {"bias/gain on a bitmap",
         [] {
             DevicePtr d = Make<BiasGain>();
             Set(*d, "Bias", 0.7f), Set(*d, "Gain", 0.2f);
             return d;
         },
         kBitmap,
         [](Floats v) {
             BiasGainSamples(v.data(), v.size(), MakeBiasGainCurve(0.7f, 0.2f));
             return std::vector<Floats>{v};
         },
         -1},
        {"uniform noise",
         [] {
             DevicePtr d = Make<AddNoise>();
             Set(*d, "Amount", 0.2f), SetInt(*d, "Random Seed", 123);
             return d;
         },
         kHeightField,
         [&](Floats v) {
             return std::vector<Floats>{rows(v, [](float* row, int32_t y) {
                 AddNoiseRow(row, kWidth, y, 123, 0.2f, kNoiseUniform);
             })};
         },
         -1},
        {"gaussian noise",
         [] {
             DevicePtr d = Make<AddNoise>();
             Set(*d, "Amount", 0.3f), SetInt(*d, "Random Seed", 5);
             SetInt(*d, "Noise Type", kNoiseGaussian);
             return d;
         },
         kHeightField,
         [&](Floats v) {
             return std::vector<Floats>{rows(v, [](float* row, int32_t y) {
                 AddNoiseRow(row, kWidth, y, 5, 0.3f, kNoiseGaussian);
             })};
         },
         -1},
        {"height splitter",
         [] {
             DevicePtr d = Make<HeightSplitter>();
             Set(*d, "Split Height", 0.4f), Set(*d, "Transition", 0.1f);
             return d;
         },
         kHeightField,
         [](Floats v) {
             Floats upper(v.size()), mask(v.size());
             SplitSamples(v.data(), upper.data(), mask.data(), v.size(), 0.4f, 0.1f);
             return std::vector<Floats>{v, upper, mask};
         },
         2},
        {"probability at every sample",
         [] {
             DevicePtr d = Make<ProbScatter>();
             Set(*d, "Density", 0.8f), SetInt(*d, "Random Seed", 9);
             return d;
         },
         kHeightField,
         [&](Floats v) {
             return std::vector<Floats>{
                 rows(v, [](float* row, int32_t y) { ScatterRow(row, row, kWidth, y, 9, 0.8f); })};
         },
         0},
        {"spaced probability",
         [] {
             DevicePtr d = Make<ProbScatter>();
             Set(*d, "Spacing", 0.15f), SetInt(*d, "Random Seed", 31);
             return d;
         },
         kHeightField,
         [](Floats v) {
             Floats out(v.size(), 0.0f);
             ScatterSpaced({v.data(), kWidth, kHeight, 4.0f, 2.0f}, out.data(), 0.15f, 31, 1.0f);
             return std::vector<Floats>{out};
         },
         0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const int channels = c.kind == kBitmap ? 3 : 1;
        Floats in = Random(points * channels, 17);
        in[3] = 1.25f;
        in[8] = -0.5f;
        in[11] = std::numeric_limits<float>::quiet_NaN();
        const PacketRef input = MakePacket(c.kind, grid, in);
        const std::vector<Floats> expected = c.expect(in);
        DevicePtr device = c.make();
        const Outputs alone = BuildWith(*device, input, grid, 0);
        ASSERT_EQ(alone.size(), expected.size());
        for (size_t k = 0; k < alone.size(); ++k) {
            ASSERT_TRUE(alone[k]) << k;
            EXPECT_EQ(alone[k]->GetKind(), c.kind);
            EXPECT_TRUE(SameBits(Of(alone[k]), expected[k])) << "output " << k;
            EXPECT_EQ(alone[k]->maskFlag, static_cast<int32_t>(k) == c.maskOutput ? 1 : 0) << k;
        }
        for (uint32_t workers : {1u, 7u}) {
            const Outputs threaded = BuildWith(*device, input, grid, workers);
            ASSERT_EQ(threaded.size(), alone.size()) << workers;
            for (size_t k = 0; k < alone.size(); ++k)
                EXPECT_TRUE(SameBits(Of(threaded[k]), Of(alone[k]))) << workers << " " << k;
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
        EXPECT_TRUE(SameBits(Of(out[0]), in)) << device->GetTypeName();
    }
}

TEST_F(OpenFilterDevices, MissingOrUnfitInputsFailWithNoOutput) {
    const Grid grid{8, 8, 0.0, 0.0, 4.0, 4.0};
    std::vector<DevicePtr> devices;
    devices.push_back(Make<Ramp>());
    devices.push_back(Make<Expander>());
    devices.push_back(Make<Equalizer>());
    devices.push_back(Make<BiasGain>());
    devices.push_back(Make<AddNoise>());
    devices.push_back(Make<HeightSplitter>());
    devices.push_back(Make<ProbScatter>());
    for (DevicePtr& device : devices) {
        SCOPED_TRACE(device->GetTypeName());
        EXPECT_TRUE(BuildWith(*device, PacketRef(), grid).empty());
        EXPECT_TRUE(BuildWith(*device, NewPacket(kParameterPacket, Grid{1, 1}), grid).empty());
    }
    // A spacing far below a sample would make too many candidates.
    Set(*devices.back(), "Spacing", 1e-5f);
    EXPECT_TRUE(
        BuildWith(*devices.back(), MakePacket(kHeightField, grid, Floats(64, 1.0f)), grid).empty());
    Set(*devices.back(), "Spacing", 0.5f);
    EXPECT_FALSE(
        BuildWith(*devices.back(), MakePacket(kHeightField, grid, Floats(64, 1.0f)), grid).empty());
    EXPECT_EQ(LivePackets(), 0);
}

TEST_F(OpenFilterDevices, SavedStateRoundTripsAndRefusesOtherTags) {
    const struct {
        std::function<DevicePtr()> make;
        const char* parameter;
        float value;  // a real, or an integer for the seed
    } cases[] = {
        {Make<Ramp>, "End", 0.25f},
        {Make<Expander>, "Low", 0.75f},
        {Make<Equalizer>, "Strength", 0.125f},
        {Make<BiasGain>, "Gain", 0.875f},
        {Make<AddNoise>, "Random Seed", 4321},
        {Make<HeightSplitter>, "Transition", 0.375f},
        {Make<ProbScatter>, "Random Seed", 99},
    };
    for (const auto& c : cases) {
        DevicePtr device = c.make();
        const bool seeded = std::string(c.parameter) == "Random Seed";
        if (seeded)
            SetInt(*device, c.parameter, static_cast<int32_t>(c.value));
        else
            Set(*device, c.parameter, c.value);
        const std::string tag(device->identity.tag, 4), saved = testing::SavedBytes(*device);
        SCOPED_TRACE(tag);
        ASSERT_EQ(saved.substr(0, 9), tag + "\x01SPRK");
        DevicePtr loaded = c.make();
        ASSERT_TRUE(testing::LoadBytes(*loaded, saved));
        if (seeded) {
            EXPECT_EQ(GetParameter(loaded.get(), c.parameter)->i, static_cast<int32_t>(c.value));
            EXPECT_NE(GetParameter(loaded.get(), "Randomize")->p, nullptr);
        } else {
            EXPECT_EQ(GetParameter(loaded.get(), c.parameter)->f, c.value);
        }
        loaded->seed = device->seed;  // drawn afresh by every load
        EXPECT_EQ(testing::SavedBytes(*loaded), saved);
        EXPECT_FALSE(testing::LoadBytes(*loaded, "CELL" + saved.substr(4)));
        EXPECT_FALSE(testing::LoadBytes(*loaded, saved.substr(0, saved.size() - 3)));
    }
}

TEST_F(OpenFilterDevices, OptionQueriesAndTheRandomizeOperation) {
    DevicePtr equalizer = Make<Equalizer>();
    EXPECT_FALSE(equalizer->OptionQuery8());
    Set(*equalizer, "Strength", 0.0f);
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
