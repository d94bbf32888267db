// The shapes devices are made of: packets like others, conversions, 3x3
// windows and slopes, DeviceOf's saved state, enabling rules and the
// global-dependency query.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "TestDevices.h"
#include "TestHost.h"
#include "framework/Neighbourhood.h"
#include "host/Network.h"

namespace {

using namespace basekit::testing;

using FieldsTest = FrameworkTest;

// A grid's size, extent and vertical scale.
std::vector<double> Shape(const Grid& g) {
    return {1.0 * g.width, 1.0 * g.height, g.x0, g.y0, g.x1, g.y1, g.verticalScale};
}

TEST_F(FieldsTest, NewPacketLikeAndConvertPacket) {
    const Grid grid{3, 2, -1.0, 2.0, 5.0, 4.0, 250.0};
    PacketRef field = NewHeightField(grid);
    const float heights[] = {0.0f, 0.25f, 0.5f, 0.75f, 1.0f, 0.125f};
    std::copy(std::begin(heights), std::end(heights), field->samples);
    field->maskFlag = 1;
    SetPacketName(*field, "Source");

    for (uint32_t kind : {kHeightField, kBitmap, kCoordinateData}) {
        PacketRef like = NewPacketLike(*field, kind);
        EXPECT_EQ(like->GetKind(), kind);
        EXPECT_EQ(Shape(like->grid), Shape(grid)) << kind;
        EXPECT_NE(like.get(), field.get());
    }
    EXPECT_EQ(NewPacketLike(*field)->GetKind(), kHeightField);

    PacketRef grey = ConvertPacket(field, kBitmap);
    ASSERT_EQ(grey->GetKind(), kBitmap);
    EXPECT_EQ(Shape(grey->grid), Shape(grid));
    EXPECT_EQ(grey->maskFlag, 1);
    EXPECT_STREQ(grey->name, "Source");
    for (int i = 0; i < 6; ++i)
        for (int c = 0; c < 3; ++c) EXPECT_EQ(grey->samples[3 * i + c], heights[i]) << i;

    // Back: the mean of the channels.
    grey->samples[0] = 0.25f, grey->samples[1] = 0.5f, grey->samples[2] = 1.0f;
    PacketRef back = ConvertPacket(grey, kHeightField);
    ASSERT_EQ(back->GetKind(), kHeightField);
    EXPECT_EQ(back->samples[0], (0.25f + 0.5f + 1.0f) / 3.0f);
    EXPECT_EQ(std::vector<float>(back->samples + 1, back->samples + 6),
              std::vector<float>(heights + 1, heights + 6));
    EXPECT_EQ(back->maskFlag, 1);

    // Any other pair is handed back as it is.
    EXPECT_EQ(ConvertPacket(field, kHeightField).get(), field.get());
    EXPECT_EQ(ConvertPacket(grey, kBitmap).get(), grey.get());
    EXPECT_EQ(ConvertPacket(field, kCoordinateData).get(), field.get());
}

TEST_F(FieldsTest, CheckSameShapeNamesWhatDiffers) {
    PacketRef a = NewHeightField(Grid{4, 3});
    const struct {
        PacketRef other;
        const char* message;
    } cases[] = {
        {NewHeightField(Grid{4, 3, 9.0, 9.0, 10.0, 10.0}), "no exception"},  // placement may differ
        {NewHeightField(Grid{5, 3}), "Size of packets don't match"},
        {NewHeightField(Grid{4, 2}), "Size of packets don't match"},
        {NewBitmap(Grid{4, 3}), "Kinds of packets don't match"},
    };
    BuildResultSet results;
    BuildContext context = Context(a->grid, &results);
    PlainDevice device;
    for (const auto& c : cases) {
        EXPECT_EQ(ThrownMessage([&] { CheckSameShape(*a, *c.other); }), c.message);
        EXPECT_EQ(ThrownMessage([&] {
                      ZipSamples(context, &device, *a, *c.other, [](float x, float) { return x; });
                  }),
                  c.message);
    }
}

// A 4x3 field of v(x, y) = x / 8 + y: every window against clamped indices,
// and the halving factor of each rule.
TEST_F(FieldsTest, WindowAtClampsIndicesAndHalvesByRule) {
    for (Grid grid : {Grid{4, 3}, Grid{1, 3}, Grid{4, 1}, Grid{1, 1}, Grid{2, 2}}) {
        const int32_t w = grid.width, h = grid.height;
        std::vector<float> f(w * h);
        auto v = [&](int32_t x, int32_t y) {
            x = std::clamp(x, 0, w - 1), y = std::clamp(y, 0, h - 1);
            return x / 8.0f + y;
        };
        for (int32_t y = 0; y < h; ++y)
            for (int32_t x = 0; x < w; ++x) f[y * w + x] = v(x, y);
        for (EdgeRule rule : {EdgeRule::OneSided, EdgeRule::Clamped}) {
            auto half = [rule](int32_t i, int32_t size) {
                if (size == 1) return 0.0f;
                return rule == EdgeRule::Clamped || (i > 0 && i < size - 1) ? 0.5f : 1.0f;
            };
            for (int32_t y = 0; y < h; ++y) {
                for (int32_t x = 0; x < w; ++x) {
                    Window win = WindowAt(f.data(), w, h, x, y, rule);
                    SCOPED_TRACE(::testing::Message() << w << "x" << h << " at " << x << "," << y);
                    EXPECT_EQ(std::vector<float>({win.c, win.n, win.s, win.w, win.e, win.nw, win.ne,
                                                  win.sw, win.se}),
                              std::vector<float>({v(x, y), v(x, y - 1), v(x, y + 1), v(x - 1, y),
                                                  v(x + 1, y), v(x - 1, y - 1), v(x + 1, y - 1),
                                                  v(x - 1, y + 1), v(x + 1, y + 1)}));
                    EXPECT_EQ(win.halfX, half(x, w));
                    EXPECT_EQ(win.halfY, half(y, h));
                }
            }
        }
    }
}

// Slopes: central differences inside, one-sided at the edges, none across a
// side of one sample.
TEST_F(FieldsTest, SlopesAgainstTheirFormula) {
    const float f[] = {0.0f,   0.5f,  0.25f, 1.0f,    //
                       0.125f, 0.75f, 0.5f,  0.375f,  //
                       1.0f,   0.0f,  0.25f, 0.625f};
    // 2 samples per unit, vertical 3: gx = (e - w) * 2 * 3 * half, gy likewise.
    const SlopeScale scale(Grid{4, 3, 0.0, 0.0, 2.0, 1.0, 3.0});
    const struct {
        int32_t x, y;
        float gx, gy;
    } cases[] = {{0, 0, (0.5f - 0.0f) * 6, (0.125f - 0.0f) * 6},
                 {1, 1, (0.5f - 0.125f) * 3, (0.0f - 0.5f) * 3},
                 {3, 1, (0.375f - 0.5f) * 6, (0.625f - 1.0f) * 3},
                 {2, 2, (0.625f - 0.0f) * 3, (0.25f - 0.5f) * 6}};
    for (const auto& c : cases) {
        float gx, gy;
        scale.Slope(WindowAt(f, 4, 3, c.x, c.y, EdgeRule::OneSided), gx, gy);
        EXPECT_EQ(gx, c.gx) << c.x << "," << c.y;
        EXPECT_EQ(gy, c.gy) << c.x << "," << c.y;
    }
    const float column[] = {0.25f, 0.5f, 1.0f};
    float gx, gy;
    SlopeScale(Grid{1, 3, 0.0, 0.0, 1.0, 1.0, 2.0})
        .Slope(WindowAt(column, 1, 3, 0, 1, EdgeRule::OneSided), gx, gy);
    EXPECT_EQ(gx, 0.0f);
    EXPECT_EQ(gy, (1.0f - 0.25f) * 1 * 2 * 0.5f);
}

TEST_F(FieldsTest, SweepInteriorSeesItsOwnResults) {
    for (Grid grid : {Grid{6, 5}, Grid{3, 3}, Grid{2, 7}, Grid{7, 2}}) {
        const int32_t w = grid.width, h = grid.height;
        PacketRef field = NewHeightField(grid);
        for (int32_t i = 0; i < w * h; ++i) field->samples[i] = static_cast<float>(i % 5);
        std::vector<float> expected(field->samples, field->samples + w * h);
        for (int32_t y = 1; y < h - 1; ++y)
            for (int32_t x = 1; x < w - 1; ++x)
                expected[y * w + x] = expected[y * w + x - 1] + 2 * expected[(y - 1) * w + x] +
                                      expected[(y + 1) * w + x];
        SweepInterior(*field, [](const Window& win) { return win.w + 2 * win.n + win.s; });
        EXPECT_EQ(std::vector<float>(field->samples, field->samples + w * h), expected)
            << w << "x" << h;
    }
}

// Tag, version byte, the device's own fields, then the base state; the
// fix-up of older versions after the load; a wrong tag or a newer version
// fails.
TEST_F(FieldsTest, DeviceOfSavesItsFieldsAndFixesOlderStates) {
    TestShade shade;
    shade.stamp = 0x01020304;
    shade.params.records[1].value.f = 0.75f;
    const std::string bytes = SavedBytes(shade);
    EXPECT_EQ(bytes.substr(0, 13), std::string("TSHD\x02\x04\x03\x02\x01SPRK", 13));

    std::string versionOne = bytes.substr(0, 5) + bytes.substr(9);
    versionOne[4] = 1;
    std::string newer = bytes;
    newer[4] = 3;
    std::string wrongTag = bytes;
    wrongTag[0] = 'X';
    const struct {
        const char* what;
        std::string bytes;
        bool ok;
        uint32_t stamp;
    } cases[] = {
        {"current", bytes, true, 0x01020304}, {"version 1", versionOne, true, 7},
        {"version 3", newer, false, 99},  // refused after the stamp: put back
        {"wrong tag", wrongTag, false, 99},   {"cut in the stamp", bytes.substr(0, 7), false, 99},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TestShade loaded;
        loaded.stamp = 99;
        EXPECT_EQ(LoadBytes(loaded, c.bytes), c.ok);
        EXPECT_EQ(loaded.stamp, c.stamp);
        if (c.ok) {  // the rest, "Strength" 0.75 included, as saved
            loaded.stamp = shade.stamp;
            loaded.seed = shade.seed;
            EXPECT_EQ(SavedBytes(loaded), bytes);
        }
    }
}

TEST_F(FieldsTest, EnablingRulesGreyParametersInTheDialog) {
    TestShade shade;
    shade.owner = &recorder;
    EXPECT_TRUE(ParameterEnabled(&shade, "Strength"));
    EXPECT_TRUE(ParameterEnabled(&shade, "Use light"));
    EXPECT_TRUE(ParameterEnabled(&shade, "Unknown"));
    host.Dialogs().Script(1, [](Device& d) { d.params.records[0].value.i = 0; });
    host.Dialogs().Script(1);
    EXPECT_TRUE(shade.EditSettings());  // opens with the light on, turns it off
    EXPECT_FALSE(ParameterEnabled(&shade, "Strength"));
    EXPECT_TRUE(shade.EditSettings());
    EXPECT_EQ(host.Dialogs().greyed, (std::vector<std::vector<std::string>>{{}, {"Strength"}}));
}

TEST_F(FieldsTest, GlobalUsersFollowTheDevicesAnswer) {
    host.RegisterHostType(&CreateDevice<TestShade>, 1, 4);
    basekit::host::Network network(host);
    network.world.width = 3;
    network.world.height = 2;
    network.AddDevice("lit", "Test Shade");
    network.AddDevice("flat", "Test Shade").params.records[0].value.i = 0;
    network.AddDevice("lit too", "Test Shade");
    EXPECT_EQ(network.GlobalUsers(kGlobalLightDirection),
              (std::vector<std::string>{"lit", "lit too"}));
    EXPECT_EQ(network.GlobalUsers(kGlobalWaterLevel), std::vector<std::string>{});
    EXPECT_EQ(network.GlobalUsers(kGlobalWaterLevel | kGlobalLightDirection).size(), 2u);

    network.globals.lightDirection[2] = 0.5f;
    network.Build({});
    EXPECT_EQ(network.Output("lit", 0)->samples[5], 0.25f);
    EXPECT_EQ(network.Output("flat", 0)->samples[5], 1.0f);
}

}  // namespace
