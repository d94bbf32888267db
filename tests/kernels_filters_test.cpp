// Inverter, Flipper and Displacement: kernels against values worked out by
// hand; the devices on the reference host's services against their kernels,
// alone and on worker threads, with their failures and saved state.

#include <gtest/gtest.h>

#include <algorithm>
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

TEST(FilterKernels, InvertIsUnclampedAndTwiceIsTheIdentity) {
    std::vector<float> v = {0.0f, 1.0f, 1.25f, -0.5f, 0.5f, 0.375f};
    const std::vector<float> in = v, once = {1.0f, 0.0f, -0.25f, 1.5f, 0.5f, 0.625f};
    InvertSamples(v.data(), v.size());
    EXPECT_EQ(v, once);
    InvertSamples(v.data(), v.size());
    EXPECT_EQ(v, in);
}

// Whole points move, channels in order: both switches turn the grid half
// round, and a length-1 axis leaves it as it is.
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
            SCOPED_TRACE(::testing::Message()
                         << s.width << "x" << s.height << "x" << s.channels << " mode " << mode);
            std::vector<float> out(count, -1.0f), back(count, -1.0f);
            FlipRows({in.data(), out.data(), s.width, s.height, s.channels}, h, v, 0, s.height - 1);
            for (int32_t y = 0; y < s.height; ++y)
                for (int32_t x = 0; x < s.width; ++x)
                    for (int c = 0; c < s.channels; ++c)
                        ASSERT_EQ(
                            out[((v ? s.height - 1 - y : y) * s.width + (h ? s.width - 1 - x : x)) *
                                    s.channels +
                                c],
                            in[(y * s.width + x) * s.channels + c]);
            FlipRows({out.data(), back.data(), s.width, s.height, s.channels}, h, v, 0,
                     s.height - 1);
            EXPECT_EQ(back, in);
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
        {false, kEdgeRepeat, 0.0f, 0.0f, 1.0f, 2, 1, 12.0f},  // strength 0: a copy
        {false, kEdgeMirror, 3.0f, 0.0f, 1.0f, 6, 1, 17.0f},  // 9 -> 7
        {false, kEdgeMirror, 3.0f, 0.0f, 1.0f, 7, 1, 16.0f},  // 10 -> 6
        {false, kEdgeRepeat, -3.0f, 0.0f, 1.0f, 1, 1, 10.0f},
        {false, kEdgeMirror, -3.0f, 0.0f, 1.0f, 1, 1, 12.0f},  // -2 -> 2
        // Truncation toward zero: -0.5 weighs columns 0 and 1 by 1.5 and -0.5.
        {false, kEdgeRepeat, -0.5f, 0.0f, 1.0f, 0, 1, 9.5f},
        {false, kEdgeMirror, -0.5f, 0.0f, 1.0f, 0, 1, 10.5f},
        {true, kEdgeRepeat, 3.0f, 0.0f, 1.0f, 2, 1, 13.5f},  // d - 0.5 = 0.5
        {true, kEdgeRepeat, 3.0f, 0.0f, 0.0f, 3, 1, 11.5f},  // the other way
        {true, kEdgeRepeat, 3.0f, 0.0f, 0.0f, 0, 1, 10.0f},
        {true, kEdgeMirror, 3.0f, 0.0f, 0.0f, 0, 1, 11.5f},
        {true, kEdgeMirror, 3.0f, 5.0f, 0.5f, 4, 2, 24.0f},  // 0.5 centred: a copy
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
    for (int32_t k = 0; k < w * h; ++k) primary[k] = static_cast<float>(k % w + 10 * (k / w));
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "centered " << c.centered << " edge " << c.edge
                                          << " shift " << c.dx << "," << c.dy << " d " << c.d);
        const std::vector<float> amount(w * h, c.d);
        std::vector<float> out(w * h, -1.0f);
        DisplaceRows({primary.data(), amount.data(), out.data(), w, h, w},
                     {c.dx, c.dy, c.centered, c.edge}, 0, h - 1);
        EXPECT_EQ(out[c.y * w + c.x], c.expected);
        if ((c.centered && c.d == 0.5f) || (c.dx == 0.0f && c.dy == 0.0f)) {
            EXPECT_EQ(out, primary);
        }
    }
    // A wider distortion field is read with its own row length.
    std::vector<float> amount(10 * h, 0.0f), out(w * h);
    for (int32_t y = 0; y < h; ++y) amount[y * 10 + 8] = amount[y * 10 + 9] = 1.0f;
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
        const DisplaceShift s =
            MakeDisplaceShift(c.direction, c.strength, c.centered, kEdgeMirror, c.perUnit);
        EXPECT_NEAR(s.dx, c.dx, 2e-5) << c.direction;
        EXPECT_NEAR(s.dy, c.dy, 2e-5) << c.direction;
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
        const size_t n = std::min<size_t>(values.size(), packet->PointCount() * packet->Channels());
        if (packet->samples) std::memcpy(packet->samples, values.data(), n * sizeof(float));
        return packet;
    }

    // Output 0 of `device` over `grid` with copies of `inputs` (null:
    // unconnected) on `workers` lent threads; null when the build fails.
    PacketRef BuildWith(Device& device, const std::vector<PacketRef>& inputs, const Grid& grid,
                        uint32_t workers = 0) {
        host.Workers().Resize(workers);
        std::vector<std::unique_ptr<ConstantHeight>> sources;
        BuildResultSet results;
        for (size_t k = 0; k < inputs.size(); ++k) {
            if (!inputs[k]) continue;
            sources.push_back(std::make_unique<ConstantHeight>());
            sources.back()->outputs[0]->Connect(device.inputs[k]);
            inputs[k]->Duplicate(doGetDevice(&results, &device).pushedInputs[k]);
        }
        const int32_t status = device.Process(Context(grid, &results));
        for (Port* port : device.inputs) port->Disconnect(nullptr);
        return status == 1 ? doGetDevice(&results, &device).outputs[0] : PacketRef();
    }

    // Built alone and on three workers: the same bits, kind and mask flag.
    PacketRef BuildOnWorkerThreads(Device& device, const std::vector<PacketRef>& inputs,
                                   const Grid& grid) {
        PacketRef alone = BuildWith(device, inputs, grid, 0);
        PacketRef threaded = BuildWith(device, inputs, grid, 3);
        EXPECT_GT(host.Workers().Accepted(), 0u);  // the workers took pieces
        if (!alone || !threaded) return PacketRef();
        EXPECT_EQ(alone->GetKind(), threaded->GetKind());
        EXPECT_EQ(alone->maskFlag, threaded->maskFlag);
        EXPECT_EQ(std::memcmp(alone->samples, threaded->samples,
                              alone->PointCount() * alone->Channels() * sizeof(float)),
                  0);
        return alone;
    }
};

// Each device against its kernel over a world of 41 x 23 samples on 4 x 2
// units; bitmaps for the inverter and the flipper.
TEST_F(FilterDevices, DevicesMatchTheirKernelsOnWorkerThreads) {
    const Grid grid{41, 23, -1.0, 0.0, 3.0, 2.0};
    const size_t points = 41 * 23;
    const struct {
        int32_t device;  // 0 inverter, 1 flipper, 2 displacement
        uint32_t kind;
        int32_t a, b;  // flips; direction and edge
        float strength;
        bool centered;
    } cases[] = {{0, kHeightField, 0, 0, 0, 0},
                 {0, kBitmap, 0, 0, 0, 0},
                 {1, kHeightField, 0, 0, 0, 0},
                 {1, kHeightField, 1, 0, 0, 0},
                 {1, kBitmap, 0, 1, 0, 0},
                 {1, kBitmap, 1, 1, 0, 0},
                 {2, kHeightField, 0, kEdgeRepeat, 0.3f, true},
                 {2, kHeightField, 0, kEdgeMirror, 0.3f, true},
                 {2, kHeightField, 135, kEdgeMirror, 1.0f, false},
                 {2, kHeightField, 290, kEdgeRepeat, 0.05f, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << "device " << c.device << " kind " << c.kind << " " << c.a << " " << c.b);
        const int channels = c.kind == kBitmap ? 3 : 1;
        const size_t count = points * channels;
        std::vector<float> in = Random(count, c.kind), amount = Random(points, 9);
        in[5] = 1.25f;  // the displacement clamps it, the others keep it
        PacketRef input = MakePacket(c.kind, grid, in);
        input->maskFlag = 1;
        std::vector<float> expected(count);
        std::unique_ptr<Device> device;
        if (c.device == 0) {
            device = std::make_unique<Inverter>();
            expected = in;
            InvertSamples(expected.data(), count);
        } else if (c.device == 1) {
            device = std::make_unique<Flipper>();
            GetParameter(device.get(), "Flip Horizontally")->i = c.a;
            GetParameter(device.get(), "Flip Vertically")->i = c.b;
            FlipRows({in.data(), expected.data(), 41, 23, channels}, c.a, c.b, 0, 22);
        } else {
            device = std::make_unique<Displacement>();
            GetParameter(device.get(), "Direction")->i = c.a;
            GetParameter(device.get(), "Strength")->f = c.strength;
            GetParameter(device.get(), "Centered")->i = c.centered;
            GetParameter(device.get(), "Edge Handling")->i = c.b;
            DisplaceRows({in.data(), amount.data(), expected.data(), 41, 23, 41},
                         MakeDisplaceShift(c.a, c.strength, c.centered, c.b, 41.0 / 4.0), 0, 22);
            ClampHeights(expected.data(), count);
        }
        PacketRef out = BuildOnWorkerThreads(
            *device, {input, c.device == 2 ? MakePacket(kHeightField, grid, amount) : PacketRef()},
            grid);
        ASSERT_TRUE(out);
        EXPECT_EQ(out->GetKind(), c.kind);
        EXPECT_EQ(out->maskFlag, c.device == 2 ? 0 : 1);
        EXPECT_EQ(std::memcmp(out->samples, expected.data(), count * sizeof(float)), 0);
    }
    // The displacement reports 0, then rows up to the last.
    ASSERT_FALSE(recorder.percents.empty() || recorder.rows.empty());
    EXPECT_EQ(recorder.percents.front(), 0);
    EXPECT_EQ(recorder.rows.back(), std::make_pair(22, 23));
}

TEST_F(FilterDevices, MissingOrUnfitInputsFailWithNoOutput) {
    const Grid grid{6, 4};
    const std::vector<float> values(6 * 4, 0.25f);
    auto field = [&](const Grid& g) { return MakePacket(kHeightField, g, values); };
    Inverter inverter;
    Flipper flipper;
    Displacement displacement;
    GetParameter(&flipper, "Flip Vertically")->i = 1;
    {
        const struct {
            Device* device;
            std::vector<PacketRef> inputs;
        } cases[] = {
            {&inverter, {PacketRef()}},
            {&flipper, {PacketRef()}},
            {&flipper, {NewPacket(kParameterPacket, Grid{1, 1})}},
            {&displacement, {PacketRef(), field(grid)}},
            {&displacement, {field(grid), PacketRef()}},
            {&displacement, {field(grid), field(Grid{5, 4})}},
            {&displacement, {field(grid), field(Grid{6, 3})}},
        };
        for (const auto& c : cases) EXPECT_FALSE(BuildWith(*c.device, c.inputs, grid));
        // A larger distortion field is read inside.
        EXPECT_TRUE(BuildWith(displacement, {field(grid), field(Grid{7, 5})}, grid));
    }
    EXPECT_EQ(LivePackets(), 0);
    EXPECT_STREQ(displacement.GetInputName(1), "Distortion amount");
    EXPECT_STREQ(displacement.GetInputName(2), "Primary Input");
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
    for (Device* device : {static_cast<Device*>(&inverter), static_cast<Device*>(&flipper),
                           static_cast<Device*>(&displacement)}) {
        const std::string tag(device->identity.tag, 4), saved = testing::SavedBytes(*device);
        ASSERT_EQ(saved.substr(0, 9), tag + "\x01SPRK");
        auto fresh = [&] {
            return std::unique_ptr<Device, DeviceDeleter>(device->identity.create(),
                                                          device->identity.destroy);
        };
        // Any version byte loads the same state; another tag or a cut state fails.
        for (const std::string& as : {tag, std::string("BLUR")}) {
            for (char version : {'\x00', '\x01', '\x07'}) {
                std::string bytes = as + version + saved.substr(5);
                auto loaded = fresh();
                ASSERT_EQ(testing::LoadBytes(*loaded, bytes), as == tag) << as << int(version);
                loaded->seed = device->seed;  // drawn afresh by every load
                if (as == tag) {
                    EXPECT_EQ(testing::SavedBytes(*loaded), saved);
                }
            }
        }
        EXPECT_FALSE(testing::LoadBytes(*fresh(), saved.substr(0, saved.size() - 3))) << tag;
    }
}

}  // namespace
}  // namespace basekit
