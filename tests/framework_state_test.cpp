#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <tuple>

#include "TestDevices.h"
#include "TestHost.h"

namespace {

using namespace basekit::testing;

// Saved state written by hand from the format, not by the writer.
class Bytes {
  public:
    Bytes& Raw(const std::string& text) {
        data += text;
        return *this;
    }
    Bytes& U8(uint8_t v) {
        data.push_back(static_cast<char>(v));
        return *this;
    }
    Bytes& U16(uint16_t v) { return U8(v & 0xFF).U8(v >> 8); }
    Bytes& U32(uint32_t v) { return U16(v & 0xFFFF).U16(v >> 16); }
    Bytes& F32(float f) {
        uint32_t u;
        std::memcpy(&u, &f, 4);
        return U32(u);
    }
    Bytes& Text(const std::string& text, size_t width) {
        return Raw(text + std::string(width - text.size(), '\0'));
    }
    std::string data;
};

class StateTest : public FrameworkTest {
  protected:
    // A device with a real "Gain", a choice "Mode" (labels at minimum 1) and a
    // kind-3 "Action".
    static void Declare(Device* device) {
        static const ParamSpec table[] = {
            {"Gain", kParamReal, 0.5, 0.0, 2.0, 513, "How much"},
            {"Mode", kParamChoice, 1, 1, 2, 0, "Which", {"a", "b"}},
            {"Action", kParamAction, 0, 0, 0, 0, nullptr},
        };
        DeclareParameters(device, table);
    }
};

Bytes BaseBlock(uint8_t version, const char* placement = "placemnt") {
    Bytes b;
    b.Raw("TEST").U8(1).Raw("SPRK").U8(version).Text(placement, 8);
    return b;
}

// The current version with default fields and `count` parameter records.
Bytes CurrentBlockWith(const std::string& records, uint32_t count,
                       const char* placement = "placemnt") {
    Bytes b = BaseBlock(9, placement);
    b.Text("", 24).U8(1).U8(0).U8(0).F32(0.5f).F32(0.5f).U32(0);
    b.U8(0xCE).U8(0xFF).Raw("PAR2").U8(1).U32(count);
    b.Raw(records);
    return b;
}

TEST_F(StateTest, SavedBytesAreExact) {
    PlainDevice device;
    EXPECT_EQ(SavedBytes(device), CurrentBlockWith("", 0, "").data);  // 68 bytes
    Declare(&device);
    Bytes records;
    records.Raw("P1").U8(5).F32(0.5f).F32(0.0f).F32(2.0f).U32(1).U32(513).Text("Gain", 32);
    records.U32(9).Text("How much", 9).U32(0);
    records.Raw("P1").U8(5).U32(1).U32(1).U32(2).U32(4).U32(0).Text("Mode", 32);
    records.U32(6).Text("Which", 6).U32(0).U16(2).Text("a", 32).Text("b", 32);
    records.Raw("P1").U8(5).U32(0).U32(0).U32(0).U32(3).U32(0).Text("Action", 32).U32(0).U32(0);
    EXPECT_EQ(SavedBytes(device), CurrentBlockWith(records.data, 3, "").data);
}

TEST_F(StateTest, RoundTripRestoresEverythingButTheSeed) {
    PlainDevice source;
    Declare(&source);
    source.SetName("Saved");
    source.enabled = 0;
    source.bypassed = 1;
    source.outputMode = 2;
    source.mode = 1;
    source.anchor[0] = 0.25f;
    source.anchor[1] = 0.75f;
    source.seed = 5;
    source.placement[0] = 7;
    source.params.records[0].value.f = 1.5f;
    source.params.records[1].value.i = 2;
    std::string bytes = SavedBytes(source);

    PlainDevice copy;
    Declare(&copy);
    host.Seeds().SetStart(900);
    basekit::host::SeedSource same;
    same.SetStart(900);
    ASSERT_TRUE(LoadBytes(copy, bytes));
    EXPECT_EQ(copy.seed, same.NextSeed());
    EXPECT_EQ(host.Seeds().Calls(), 1u);
    EXPECT_STREQ(copy.name, "Saved");
    EXPECT_EQ(std::make_tuple(copy.enabled, copy.bypassed, copy.outputMode, copy.mode,
                              copy.anchor[0], copy.anchor[1], copy.placement[0],
                              copy.params.records[0].value.f, copy.params.records[1].value.i),
              std::make_tuple(0, 1, 2u, 1u, 0.25f, 0.75f, 7, 1.5f, 2));
    copy.seed = source.seed;
    EXPECT_EQ(SavedBytes(copy), bytes);  // every other field as it was
}

// Versions 0 to 2 restore only the placement, 3 also the name; from 5 the
// flags, from 7 bypassing, from 8 the anchor, and a seed is drawn on every
// load (a stored one from 9 is not used). The rest is reset.
TEST_F(StateTest, OldBaseVersions) {
    for (uint8_t version : {0, 1, 2, 3, 5, 6, 7, 8, 9}) {
        SCOPED_TRACE(int(version));
        PlainDevice device;
        Declare(&device);
        device.SetName("Before");
        device.anchor[0] = 0.1f;
        device.mode = 1;
        Bytes bytes = BaseBlock(version);
        bytes.Text("Old name", 24);
        if (version >= 5) bytes.U8(0x03);
        if (version >= 8) bytes.U8(1).U8(1).F32(0.2f).F32(0.3f);
        if (version >= 9) bytes.U32(12345);
        if (version >= 5) bytes.U8(0xCE).U8(0xFF).Raw("PAR2").U8(1).U32(0);
        const uint64_t before = host.Seeds().Calls();
        ASSERT_TRUE(LoadBytes(device, bytes.data));
        EXPECT_EQ(std::memcmp(device.placement, "placemnt", 8), 0);
        EXPECT_STREQ(device.name, version >= 3 ? "Old name" : "Before");
        EXPECT_EQ(device.anchor[0], version >= 8 ? 0.2f : 0.5f);
        EXPECT_EQ(device.mode, version >= 8 ? 1u : 0u);
        EXPECT_EQ(device.enabled, 1);
        EXPECT_EQ(device.bypassed, version >= 7 ? 1 : 0);
        EXPECT_EQ(device.params.records[0].value.f, 0.5f);
        EXPECT_EQ(host.Seeds().Calls(), before + (version >= 5 ? 1 : 0));
        EXPECT_NE(device.seed, 12345);
    }
}

// A version-4 base with a "PARM" block (no marker, no version) holding one
// record of each older version. The declared range and description are never
// replaced, and no seed is drawn.
TEST_F(StateTest, OlderRecordsAndBlocksLoad) {
    for (uint8_t version = 1; version <= 5; ++version) {
        SCOPED_TRACE(int(version));
        Bytes b = BaseBlock(4);
        b.Text("Name4", 24).Raw("PARM").U32(1).Raw("P1").U8(version).F32(1.25f).F32(0).F32(2);
        if (version < 4) b.U32(0xDEADBEEF);
        b.U32(kParamReal).U32(0).Text("Gain", 32);
        if (version >= 5) b.U32(0);
        if (version >= 3) b.U32(0);
        PlainDevice device;
        Declare(&device);
        ASSERT_TRUE(LoadBytes(device, b.data));
        EXPECT_EQ(device.params.records[0].value.f, 1.25f);
        EXPECT_STREQ(device.name, "Name4");
        EXPECT_EQ(device.params.records[0].maximum.f, 2.0f);
        EXPECT_STREQ(device.params.records[0].description, "How much");
    }
    EXPECT_EQ(host.Seeds().Calls(), 0u);
}

std::string Record(const std::string& name, uint32_t kind, uint32_t value) {
    Bytes r;
    r.Raw("P1").U8(5).U32(value).U32(0).U32(2).U32(kind).U32(0).Text(name, 32).U32(0).U32(0);
    if (kind == kParamChoice) r.U16(0);
    return r.data;
}

int32_t Bits(float f) {
    int32_t i;
    std::memcpy(&i, &f, 4);
    return i;
}

// A fixed list loads the declared records the file names: one missing from
// the file gets its default, kind 3 and those kept on load keep their values.
// A dynamic list takes the records the file holds, whatever was declared.
TEST_F(StateTest, ListsTakeTheRecordsTheyMay) {
    const std::string fixed =
        Record("Unknown", kParamReal, 7) + Record("Gain", kParamReal, Bits(0.25f)) +
        Record("Action", kParamAction, 99) + Record("Fixed", kParamInteger, 8);
    Bytes choice, negative;
    choice.Raw("P1").U8(5).U32(1).U32(1).U32(2).U32(kParamChoice).U32(0).Text("Mode", 32);
    choice.U32(0).U32(0).U16(2).Text("a", 32).Text("b", 32);
    negative.Raw("P1").U8(5).U32(0).U32(static_cast<uint32_t>(-3)).U32(5).U32(4).U32(0);
    negative.Text("C", 32).U32(0).U32(0).U16(2).Text("x", 32).Text("y", 32);
    const struct {
        const char* what;
        bool dynamic;
        std::string records;
        uint32_t count;
        std::vector<std::string> names;
        std::vector<int32_t> values;
        std::vector<std::string> labels;  // of the first record
    } cases[] = {
        {"fixed", false, fixed, 4, {"Gain", "Mode", "Action", "Fixed"}, {Bits(0.25f), 1, 5, 3}, {}},
        {"declared ones dropped", true, Record("Only", kParamInteger, 4), 1, {"Only"}, {4}, {}},
        {"kind 3 values cleared", true, Record("Act", kParamAction, 77), 1, {"Act"}, {0}, {}},
        // Label k lands at k - minimum: with minimum 1 the first is lost, with
        // -3 both fall outside the list, which keeps its size.
        {"labels shift by the minimum", true, choice.data, 1, {"Mode"}, {1}, {"b", ""}},
        {"a negative minimum stays in bounds", true, negative.data, 1, {"C"}, {0}, {"", ""}},
    };
    static const ParamSpec kept[] = {
        {"Fixed", kParamInteger, 3, 0, 9, 0, nullptr, {}, kParamKeepOnLoad}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PlainDevice device;
        device.params.dynamic = c.dynamic;
        Declare(&device);
        if (!c.dynamic) {
            DeclareParameters(&device, kept);
            device.params.records[2].value.i = 5;
        }
        ASSERT_TRUE(LoadBytes(device, CurrentBlockWith(c.records, c.count).data));
        std::vector<std::string> names, labels;
        std::vector<int32_t> values;
        for (const ParamRecord& got : device.params.records) {
            names.emplace_back(got.name);
            values.push_back(got.value.i);
        }
        for (const ParamLabel& label : device.params.records[0].labels)
            labels.emplace_back(label.data());
        EXPECT_EQ(names, c.names);
        EXPECT_EQ(values, c.values);
        EXPECT_EQ(labels, c.labels);
    }
}

// Wrong tags, and counts and lengths no file of this size can hold: the
// load fails without a huge allocation.
TEST_F(StateTest, BadTagsAndHostileCountsFail) {
    std::string wrongDevice = BaseBlock(9).data, wrongBlock = CurrentBlockWith("", 0).data;
    wrongDevice.replace(0, 4, "XXXX");
    wrongBlock.replace(wrongBlock.find("PAR2"), 4, "PAR3");
    Bytes description, labels;
    description.Raw("P1").U8(5).U32(0).U32(0).U32(1).U32(1).U32(0).Text("G", 32).U32(0xFFFFFFF0);
    labels.Raw("P1").U8(5).U32(0).U32(0x80000000).U32(0x7FFFFFFF).U32(4).U32(0).Text("C", 32);
    labels.U32(0).U32(0).U16(0x7FFF);
    const struct {
        const char* what;
        std::string bytes;
    } cases[] = {
        {"device tag", wrongDevice},
        {"base tag", Bytes().Raw("TEST").U8(1).Raw("SPRX").U8(9).data},
        {"block tag", wrongBlock},
        {"record tag", CurrentBlockWith("Q1", 1).data},
        {"huge record count", CurrentBlockWith("", 0x7FFFFFFF).data},
        {"huge description", CurrentBlockWith(description.data, 1).data},
        {"huge label count and range", CurrentBlockWith(labels.data, 1).data},
    };
    for (const auto& c : cases) {
        PlainDevice device;
        device.params.dynamic = 1;
        device.SetName("Keep");
        EXPECT_FALSE(LoadBytes(device, c.bytes)) << c.what;
        if (std::string(c.what) == "device tag") {
            EXPECT_STREQ(device.name, "Keep");
        }
    }
}

// Every cut fails, leaking nothing; random damage never crashes, and whatever
// the load answers the device stays whole: it saves and reloads.
TEST_F(StateTest, TruncatedAndDamagedStates) {
    PlainDevice source;
    Declare(&source);
    const std::string bytes = SavedBytes(source);
    const int64_t outstanding = Outstanding();
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
        PlainDevice device;
        Declare(&device);
        EXPECT_FALSE(LoadBytes(device, bytes.substr(0, cut))) << "cut at " << cut;
    }
    EXPECT_EQ(Outstanding(), outstanding);
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        std::string damaged = bytes;
        for (int flips = 1 + static_cast<int>(random() % 6); flips > 0; --flips)
            damaged[random() % damaged.size()] = static_cast<char>(random());
        PlainDevice device, reloaded;
        Declare(&device);
        Declare(&reloaded);
        LoadBytes(device, damaged);
        ASSERT_TRUE(LoadBytes(reloaded, SavedBytes(device))) << "round " << round;
    }
}

}  // namespace
