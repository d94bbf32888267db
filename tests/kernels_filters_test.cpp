// Inverter, Flipper and Displacement: their kernels against values worked out
// by hand, and the devices on the reference host's services against their
// kernels, alone and on worker threads, with their failures and saved state.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "TestDevices.h"
#include "TestHost.h"
#include "devices/filters/Displacement.h"
#include "devices/filters/Flipper.h"
#include "devices/filters/Inverter.h"
#include "devices/generators/ConstantHeight.h"
#include "framework/Terrain.h"

namespace basekit {
namespace {

std::vector<float> Random(size_t count, uint32_t seed) {
    std::vector<float> v(count);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (float& x : v) x = u(rng);
    return v;
}

bool SameBits(const float* a, const float* b, size_t count) {
    return std::memcmp(a, b, count * sizeof(float)) == 0;
}

TEST(FilterKernels, InvertMirrorsAboutOneHalfUnclampedAndTwiceIsTheIdentity) {
    const struct {
        float in, out;
    } cases[] = {{0.0f, 1.0f}, {1.0f, 0.0f},   {1.25f, -0.25f},  {-0.5f, 1.5f},
                 {0.5f, 0.5f}, {0.25f, 0.75f}, {0.375f, 0.625f}, {2.0f, -1.0f}};
    std::vector<float> v;
    for (const auto& c : cases) v.push_back(c.in);
    InvertSamples(v.data(), v.size());
    for (size_t k = 0; k < v.size(); ++k) EXPECT_EQ(v[k], cases[k].out) << cases[k].in;
    InvertSamples(v.data(), v.size());
    for (size_t k = 0; k < v.size(); ++k) EXPECT_EQ(v[k], cases[k].in);
}

TEST(FilterKernels, FlipsMoveWholePointsAndUndoThemselves) {
    const struct {
        int32_t width, height;
        int channels;
    } shapes[] = {{1, 6, 1}, {6, 1, 1}, {5, 3, 1}, {4, 3, 3}, {1, 4, 3}, {7, 1, 3}, {3, 2, 2}};
    for (const auto& s : shapes) {
        const size_t count = static_cast<size_t>(s.width) * s.height * s.channels;
        std::vector<float> in(count);
        for (size_t k = 0; k < count; ++k) in[k] = static_cast<float>(k);
        for (int mode = 0; mode < 4; ++mode) {
            const bool h = mode & 1, v = mode & 2;
            SCOPED_TRACE(::testing::Message() << s.width << "x" << s.height << "x" << s.channels
                                              << " h " << h << " v " << v);
            std::vector<float> out(count, -1.0f), back(count, -1.0f);
            FlipRows({in.data(), out.data(), s.width, s.height, s.channels}, h, v, 0, s.height - 1);
            for (int32_t y = 0; y < s.height; ++y)
                for (int32_t x = 0; x < s.width; ++x)
                    for (int c = 0; c < s.channels; ++c) {
                        const int32_t ty = v ? s.height - 1 - y : y;
                        const int32_t tx = h ? s.width - 1 - x : x;
                        ASSERT_EQ(out[(ty * s.width + tx) * s.channels + c],
                                  in[(y * s.width + x) * s.channels + c]);
                    }
            FlipRows({out.data(), back.data(), s.width, s.height, s.channels}, h, v, 0,
                     s.height - 1);
            EXPECT_EQ(back, in);
            // Along a length-1 axis nothing moves.
            if ((s.width == 1 && !v) || (s.height == 1 && !h) || mode == 0) {
                EXPECT_EQ(out, in);
            }
            // Both: the points in reverse order, a half turn.
            if (mode == 3) {
                for (size_t p = 0; p < count / s.channels; ++p)
                    for (int c = 0; c < s.channels; ++c)
                        ASSERT_EQ(out[p * s.channels + c],
                                  in[(count / s.channels - 1 - p) * s.channels + c]);
            }
        }
    }
}

// Primary x + 10 y on 8 x 5, a constant distortion value d: the sample at
// (x, y) for a shift of (dx, dy) samples per unit of d.
TEST(FilterKernels, DisplacementSamplesBilinearlyWithEitherEdgeRule) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        bool centered;
        int32_t edge;
        float dx, dy, d;
        int32_t x, y;
        float expected;
    } cases[] = {
        {false, kEdgeRepeat, 1.5f, 0.0f, 1.0f, 2, 1, 13.5f},
        {false, kEdgeRepeat, 1.5f, 0.0f, 1.0f, 7, 1, 17.0f},  // past the border: the edge
        {false, kEdgeRepeat, 1.5f, 0.0f, 0.0f, 2, 1, 12.0f},  // 0 uncentred: no shift
        {false, kEdgeRepeat, 3.0f, 0.0f, 1.0f, 7, 1, 17.0f},
        {false, kEdgeMirror, 3.0f, 0.0f, 1.0f, 6, 1, 17.0f},   // 9 -> 7
        {false, kEdgeMirror, 3.0f, 0.0f, 1.0f, 7, 1, 16.0f},   // 10 -> 6
        {false, kEdgeRepeat, -3.0f, 0.0f, 1.0f, 1, 1, 10.0f},  // -2 -> column 0
        {false, kEdgeMirror, -3.0f, 0.0f, 1.0f, 1, 1, 12.0f},  // -2 -> 2
        // Truncation toward zero: -0.5 weighs columns 0 and 1 by 1.5 and -0.5.
        {false, kEdgeRepeat, -0.5f, 0.0f, 1.0f, 0, 1, 9.5f},
        {false, kEdgeMirror, -0.5f, 0.0f, 1.0f, 0, 1, 10.5f},
        {true, kEdgeRepeat, 3.0f, 0.0f, 1.0f, 2, 1, 13.5f},  // d - 0.5 = 0.5
        {true, kEdgeRepeat, 3.0f, 0.0f, 0.0f, 3, 1, 11.5f},  // the other way
        {true, kEdgeRepeat, 3.0f, 0.0f, 0.0f, 0, 1, 10.0f},
        {true, kEdgeMirror, 3.0f, 0.0f, 0.0f, 0, 1, 11.5f},
        {true, kEdgeMirror, 3.0f, 5.0f, 0.5f, 4, 2, 24.0f},  // 0.5 centred: no shift
        {false, kEdgeRepeat, 0.0f, 2.5f, 1.0f, 3, 4, 43.0f},
        {false, kEdgeMirror, 0.0f, 2.5f, 1.0f, 3, 4, 38.0f},  // 6.5 -> 3.5
        {false, kEdgeMirror, 0.0f, 1.0f, 1.0f, 3, 4, 43.0f},  // 5 -> 4
        // Far out and NaN stay inside the field.
        {false, kEdgeRepeat, 1e30f, 0.0f, 1.0f, 2, 1, 17.0f},
        {false, kEdgeMirror, 1e30f, 0.0f, 1.0f, 2, 1, 10.0f},  // 16 - 1e30 -> column 0
        {false, kEdgeRepeat, 1.0f, 1.0f, nan, 3, 2, 0.0f},
    };
    const int32_t w = 8, h = 5;
    std::vector<float> primary(w * h);
    for (int32_t y = 0; y < h; ++y)
        for (int32_t x = 0; x < w; ++x) primary[y * w + x] = static_cast<float>(x + 10 * y);
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << "centered " << c.centered << " edge " << c.edge << " shift " << c.dx << ","
                     << c.dy << " d " << c.d << " at " << c.x << "," << c.y);
        const std::vector<float> amount(w * h, c.d);
        std::vector<float> out(w * h, -1.0f);
        DisplaceRows({primary.data(), amount.data(), out.data(), w, h, w},
                     {c.dx, c.dy, c.centered, c.edge}, 0, h - 1);
        EXPECT_EQ(out[c.y * w + c.x], c.expected);
        if (c.centered && c.d == 0.5f) {
            EXPECT_EQ(out, primary);
        }
    }

    // A wider distortion field is read with its own row length.
    std::vector<float> amount(10 * h, 0.0f);
    for (int32_t y = 0; y < h; ++y) amount[y * 10 + 8] = amount[y * 10 + 9] = 1.0f;
    std::vector<float> out(w * h);
    DisplaceRows({primary.data(), amount.data(), out.data(), w, h, 10},
                 {2.0f, 0.0f, false, kEdgeRepeat}, 0, h - 1);
    EXPECT_EQ(out, primary);
}

TEST(FilterKernels, DisplaceShiftIsHalfTheStrengthInWorldUnits) {
    const struct {
        int32_t direction;
        float strength;
        bool centered;
        double perUnit, dx, dy;
    } cases[] = {{0, 0.5f, false, 8.0, 2.0, 0.0},
                 {0, 0.5f, true, 8.0, 4.0, 0.0},
                 {0, 1.0f, true, 0.0, 0.0, 0.0},
                 {90, 1.0f, false, 4.0, 0.0, 2.0},
                 {180, 1.0f, true, 4.0, -4.0, 0.0},
                 {270, 0.25f, false, 16.0, 0.0, -2.0},
                 {45, 1.0f, false, 2.0, 0.7071068, 0.7071068}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.direction << " degrees, strength " << c.strength);
        const DisplaceShift s =
            MakeDisplaceShift(c.direction, c.strength, c.centered, kEdgeMirror, c.perUnit);
        EXPECT_NEAR(s.dx, c.dx, 2e-5);
        EXPECT_NEAR(s.dy, c.dy, 2e-5);
        EXPECT_EQ(s.centered, c.centered);
        EXPECT_EQ(s.edge, kEdgeMirror);
    }
    // The angle's own constant, 4.1e-6 above pi: 180 degrees is not quite a
    // half turn (with pi in float the sine would be -8.7e-8).
    EXPECT_NEAR(MakeDisplaceShift(180, 1.0f, false, kEdgeRepeat, 2.0).dy, -4.1e-6, 0.6e-6);
}

// The devices on the reference host's services. Inputs are pushed onto ports
// linked to placeholder sources that never build.
class FilterDevices : public testing::FrameworkTest {
  protected:
    PacketRef MakePacket(uint32_t kind, const Grid& grid, const std::vector<float>& values) {
        PacketRef packet = NewPacket(kind, grid);
        const size_t count =
            std::min<size_t>(values.size(), packet->PointCount() * packet->Channels());
        if (packet->samples) std::memcpy(packet->samples, values.data(), count * sizeof(float));
        return packet;
    }

    // Output 0 of `device` built over `grid` with `inputs` (null: unconnected)
    // on `workers` lent threads; null when Process does not answer 1.
    PacketRef BuildWith(Device& device, const std::vector<PacketRef>& inputs, const Grid& grid,
                        uint32_t workers = 0) {
        host.Workers().Resize(workers);
        std::vector<std::unique_ptr<ConstantHeight>> sources;
        BuildResultSet results;
        for (size_t k = 0; k < inputs.size(); ++k) {
            if (!inputs[k]) continue;
            sources.push_back(std::make_unique<ConstantHeight>());
            sources.back()->outputs[0]->Connect(device.inputs[k]);
            doGetDevice(&results, &device).pushedInputs[k] = inputs[k];
        }
        const int32_t status = device.Process(Context(grid, &results));
        PacketRef out = doGetDevice(&results, &device).outputs[0];
        for (Port* port : device.inputs) port->Disconnect(nullptr);
        return status == 1 ? out : PacketRef();
    }

    // Built alone and on three workers: the same bits, kind and mask flag.
    PacketRef BuildOnWorkerThreads(Device& device, const std::vector<PacketRef>& inputs,
                                   const Grid& grid) {
        auto copies = [&] {
            std::vector<PacketRef> list;
            for (const PacketRef& p : inputs) {
                PacketRef copy;
                if (p) p->Duplicate(copy);
                list.push_back(copy);
            }
            return list;
        };
        PacketRef alone = BuildWith(device, copies(), grid, 0);
        PacketRef threaded = BuildWith(device, copies(), grid, 3);
        EXPECT_GT(host.Workers().Accepted(), 0u);  // the workers took pieces
        EXPECT_TRUE(alone && threaded);
        if (!alone || !threaded) return PacketRef();
        EXPECT_EQ(alone->GetKind(), threaded->GetKind());
        EXPECT_EQ(alone->maskFlag, threaded->maskFlag);
        EXPECT_TRUE(
            SameBits(alone->samples, threaded->samples, alone->PointCount() * alone->Channels()));
        return alone;
    }
};

TEST_F(FilterDevices, InverterAndFlipperMatchTheirKernelsOnWorkerThreads) {
    const Grid grid{37, 29, -1.0, 0.0, 2.0, 1.5};
    for (uint32_t kind : {kHeightField, kBitmap}) {
        const int channels = kind == kBitmap ? 3 : 1;
        const size_t count = static_cast<size_t>(grid.width) * grid.height * channels;
        std::vector<float> in = Random(count, kind);
        in[5] = 1.25f;  // kept outside 0..1 by both
        for (int mode = -1; mode < 4; ++mode) {
            SCOPED_TRACE(::testing::Message() << "kind " << kind << " mode " << mode);
            Inverter inverter;
            Flipper flipper;
            Device& device = mode < 0 ? static_cast<Device&>(inverter) : flipper;
            GetParameter(&flipper, "Flip Horizontally")->i = mode & 1;
            GetParameter(&flipper, "Flip Vertically")->i = (mode >> 1) & 1;
            PacketRef input = MakePacket(kind, grid, in);
            input->maskFlag = 1;
            PacketRef out = BuildOnWorkerThreads(device, {input}, grid);
            ASSERT_TRUE(out);
            EXPECT_EQ(out->GetKind(), kind);
            EXPECT_EQ(out->maskFlag, 1);
            EXPECT_EQ(out->grid.x1, grid.x1);
            std::vector<float> expected(count);
            if (mode < 0) {
                expected = in;
                InvertSamples(expected.data(), count);
            } else {
                FlipRows({in.data(), expected.data(), grid.width, grid.height, channels}, mode & 1,
                         mode & 2, 0, grid.height - 1);
            }
            EXPECT_TRUE(SameBits(out->samples, expected.data(), count));
        }
    }
}

TEST_F(FilterDevices, DisplacementMatchesItsKernelOnWorkerThreads) {
    const Grid grid{41, 23, -1.0, 0.0, 3.0, 2.0};  // 10.25 samples per world unit
    const size_t count = static_cast<size_t>(grid.width) * grid.height;
    std::vector<float> primary = Random(count, 7), amount = Random(count, 8);
    primary[3] = 1.5f;  // outside 0..1: clamped at the end
    const struct {
        int32_t direction;
        float strength;
        bool centered;
        int32_t edge;
    } cases[] = {{0, 0.3f, true, kEdgeRepeat},    {0, 0.3f, true, kEdgeMirror},
                 {135, 1.0f, false, kEdgeMirror}, {135, 1.0f, false, kEdgeRepeat},
                 {290, 0.05f, true, kEdgeMirror}, {360, 0.6f, false, kEdgeRepeat}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.direction << " degrees, edge " << c.edge);
        Displacement device;
        GetParameter(&device, "Direction")->i = c.direction;
        GetParameter(&device, "Strength")->f = c.strength;
        GetParameter(&device, "Centered")->i = c.centered;
        GetParameter(&device, "Edge Handling")->i = c.edge;
        PacketRef out = BuildOnWorkerThreads(
            device,
            {MakePacket(kHeightField, grid, primary), MakePacket(kHeightField, grid, amount)},
            grid);
        ASSERT_TRUE(out);
        std::vector<float> expected(count);
        DisplaceRows(
            {primary.data(), amount.data(), expected.data(), grid.width, grid.height, grid.width},
            MakeDisplaceShift(c.direction, c.strength, c.centered, c.edge, 41.0 / 4.0), 0,
            grid.height - 1);
        ClampHeights(expected.data(), count);
        EXPECT_TRUE(SameBits(out->samples, expected.data(), count));
    }
}

TEST_F(FilterDevices, DisplacementShiftsByHalfTheStrengthInWorldUnits) {
    // A ramp along x (or y) over 4 world units at 8.25 samples per unit:
    // strength 0.8 at full distortion reads 0.4 units = 3.3 samples further.
    const Grid grid{33, 33, 0.0, 0.0, 4.0, 4.0};
    const size_t count = 33 * 33;
    const struct {
        int32_t direction;
        bool centered;
        float d, samples;  // distortion value, expected shift along the direction
        float strength;
    } cases[] = {{0, false, 1.0f, 3.3f, 0.8f}, {90, false, 1.0f, 3.3f, 0.8f},
                 {0, true, 1.0f, 3.3f, 0.8f},  {0, true, 0.0f, -3.3f, 0.8f},
                 {0, true, 0.5f, 0.0f, 0.8f},  {180, false, 1.0f, -3.3f, 0.8f},
                 {0, false, 1.0f, 0.0f, 0.0f}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.direction << " degrees, d " << c.d);
        std::vector<float> ramp(count);
        for (int32_t y = 0; y < 33; ++y)
            for (int32_t x = 0; x < 33; ++x)
                ramp[y * 33 + x] = static_cast<float>(c.direction == 90 ? y : x) / 64.0f;
        Displacement device;
        GetParameter(&device, "Direction")->i = c.direction;
        GetParameter(&device, "Strength")->f = c.strength;
        GetParameter(&device, "Centered")->i = c.centered;
        recorder.rows.clear();
        recorder.percents.clear();
        PacketRef out = BuildWith(device,
                                  {MakePacket(kHeightField, grid, ramp),
                                   MakePacket(kHeightField, grid, std::vector<float>(count, c.d))},
                                  grid);
        ASSERT_TRUE(out);
        for (int32_t y = 4; y < 29; ++y)
            for (int32_t x = 4; x < 29; ++x) {
                const float along = static_cast<float>(c.direction == 90 ? y : x);
                ASSERT_NEAR(out->samples[y * 33 + x], (along + c.samples) / 64.0f, 1e-6f)
                    << x << "," << y;
            }
        if (c.strength == 0.0f || c.d == 0.5f) {
            EXPECT_TRUE(SameBits(out->samples, ramp.data(), count));
        }
        // Progress: 0 first, then rows up to the last.
        ASSERT_FALSE(recorder.percents.empty());
        EXPECT_EQ(recorder.percents.front(), 0);
        ASSERT_FALSE(recorder.rows.empty());
        EXPECT_EQ(recorder.rows.back(), std::make_pair(32, 33));
    }
}

TEST_F(FilterDevices, MissingOrUnfitInputsFailWithNoOutput) {
    const Grid grid{6, 4};
    const std::vector<float> values(6 * 4 * 3, 0.25f);
    auto field = [&](const Grid& g) { return MakePacket(kHeightField, g, values); };
    Inverter inverter;
    Flipper flipper;
    Displacement displacement;
    GetParameter(&flipper, "Flip Vertically")->i = 1;
    {
        const struct {
            Device* device;
            std::vector<PacketRef> inputs;
            const char* why;
        } cases[] = {
            {&inverter, {PacketRef()}, "inverter without input"},
            {&flipper, {PacketRef()}, "flipper without input"},
            {&flipper, {NewPacket(kParameterPacket, Grid{1, 1})}, "flipper of a parameter packet"},
            {&displacement, {PacketRef(), field(grid)}, "no primary"},
            {&displacement, {field(grid), PacketRef()}, "no distortion"},
            {&displacement, {field(grid), field(Grid{5, 4})}, "narrower distortion"},
            {&displacement, {field(grid), field(Grid{6, 3})}, "shorter distortion"},
        };
        for (const auto& c : cases) EXPECT_FALSE(BuildWith(*c.device, c.inputs, grid)) << c.why;
        // Inputs that fit build; a larger distortion field is read inside.
        EXPECT_TRUE(BuildWith(flipper, {field(grid)}, grid));
        EXPECT_TRUE(BuildWith(displacement, {field(grid), field(Grid{7, 5})}, grid));
    }
    // Refused inputs are released, not kept.
    EXPECT_EQ(LivePackets(), 0);
}

TEST_F(FilterDevices, IdentityPortsAndOptionAnswers) {
    Inverter inverter;
    Flipper flipper;
    Displacement displacement;
    const struct {
        Device* device;
        const char* tag;
        size_t inputs;
        uint32_t kind;
        bool query7, query8;
    } cases[] = {{&inverter, "IVRT", 1, kHeightField | kBitmap, false, true},
                 {&flipper, "FLIP", 1, kHeightField | kBitmap, false, false},
                 {&displacement, "WARP", 2, kHeightField, true, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.tag);
        EXPECT_EQ(std::string(c.device->identity.tag, 4), c.tag);
        EXPECT_EQ(c.device->GetCategory(), 4);
        EXPECT_EQ(c.device->inputs.size(), c.inputs);
        EXPECT_EQ(c.device->inputs[0]->kind, c.kind);
        EXPECT_EQ(c.device->outputs[0]->kind, c.kind);
        EXPECT_EQ(c.device->OptionQuery7(), c.query7);
        EXPECT_EQ(c.device->OptionQuery8(), c.query8);
        EXPECT_TRUE(c.device->OptionQuery9());
    }
    EXPECT_STREQ(displacement.GetInputName(0), "Primary Input");
    EXPECT_STREQ(displacement.GetInputName(1), "Distortion amount");
    EXPECT_STREQ(displacement.GetInputName(2), "Primary Input");
}

using DeviceHandle = std::unique_ptr<Device, DeviceDeleter>;

// A new device of the same class, made and deleted as the host does.
DeviceHandle Fresh(Device& like) {
    return DeviceHandle(like.identity.create(), like.identity.destroy);
}

TEST_F(FilterDevices, SavedStateRoundTripsAtAnyVersion) {
    Inverter inverter;
    Flipper flipper;
    Displacement displacement;
    GetParameter(&flipper, "Flip Vertically")->i = 1;
    GetParameter(&displacement, "Direction")->i = 275;
    GetParameter(&displacement, "Strength")->f = 0.625f;
    GetParameter(&displacement, "Centered")->i = 0;
    GetParameter(&displacement, "Edge Handling")->i = kEdgeMirror;
    const struct {
        Device* device;
        const char* tag;
    } devices[] = {{&inverter, "IVRT"}, {&flipper, "FLIP"}, {&displacement, "WARP"}};
    for (const auto& d : devices) {
        const std::string saved = testing::SavedBytes(*d.device);
        ASSERT_EQ(saved.substr(0, 9), std::string(d.tag) + "\x01SPRK");
        // Any version byte loads the same state; another tag or a cut state fails.
        for (const char* tag : {d.tag, "BLUR"}) {
            for (char version : {'\x00', '\x01', '\x07'}) {
                SCOPED_TRACE(::testing::Message()
                             << d.tag << " as " << tag << " v" << int(version));
                std::string bytes = saved;
                bytes.replace(0, 4, tag);
                bytes[4] = version;
                DeviceHandle loaded = Fresh(*d.device);
                const bool ok = std::string(tag) == d.tag;
                ASSERT_EQ(testing::LoadBytes(*loaded, bytes), ok);
                if (!ok) continue;
                loaded->seed = d.device->seed;  // drawn afresh by every load
                EXPECT_EQ(testing::SavedBytes(*loaded), saved);
            }
        }
        DeviceHandle cut = Fresh(*d.device);
        EXPECT_FALSE(testing::LoadBytes(*cut, saved.substr(0, saved.size() - 3))) << d.tag;
    }
}

}  // namespace
}  // namespace basekit
