#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <sstream>
#include <string>

#include "TestHost.h"
#include "TestDevices.h"

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
        std::string padded = text;
        padded.resize(width, '\0');
        return Raw(padded);
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

Bytes BaseBlock(uint8_t version) {
    Bytes b;
    b.Raw("TEST").U8(1).Raw("SPRK").U8(version).Text("placemnt", 8);
    return b;
}

TEST_F(StateTest, PlainDeviceSaves68Bytes) {
    PlainDevice device;
    std::string bytes = SavedBytes(device);
    Bytes expected;
    expected.Raw("TEST").U8(1).Raw("SPRK").U8(9).Text("", 8).Text("", 24).U8(1).U8(0).U8(0);
    expected.F32(0.5f).F32(0.5f).U32(0).U8(0xCE).U8(0xFF).Raw("PAR2").U8(1).U32(0);
    EXPECT_EQ(bytes, expected.data);
}

TEST_F(StateTest, RecordsAreWrittenInTheCurrentVersion) {
    PlainDevice device;
    Declare(&device);
    std::string bytes = SavedBytes(device);
    Bytes gain;
    gain.Raw("P1").U8(5).F32(0.5f).F32(0.0f).F32(2.0f).U32(1).U32(513).Text("Gain", 32);
    gain.U32(9).Text("How much", 9).U32(0);
    Bytes mode;
    mode.Raw("P1").U8(5).U32(1).U32(1).U32(2).U32(4).U32(0).Text("Mode", 32);
    mode.U32(6).Text("Which", 6).U32(0).U16(2).Text("a", 32).Text("b", 32);
    EXPECT_NE(bytes.find(gain.data), std::string::npos);
    EXPECT_NE(bytes.find(mode.data), std::string::npos);
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
    EXPECT_STREQ(copy.name, "Saved");
    EXPECT_EQ(copy.enabled, 0);
    EXPECT_EQ(copy.bypassed, 1);
    EXPECT_EQ(copy.outputMode, 2u);
    EXPECT_EQ(copy.mode, 1u);
    EXPECT_EQ(copy.anchor[0], 0.25f);
    EXPECT_EQ(copy.anchor[1], 0.75f);
    EXPECT_EQ(copy.placement[0], 7);
    EXPECT_EQ(copy.seed, same.NextSeed());
    EXPECT_EQ(host.Seeds().Calls(), 1u);
    EXPECT_EQ(copy.params.records[0].value.f, 1.5f);
    EXPECT_EQ(copy.params.records[1].value.i, 2);
    EXPECT_EQ(SavedBytes(copy).substr(0, 40), bytes.substr(0, 40));
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

// A "PARM" block (no marker, no version) with one record of `version`.
Bytes OldRecordBlock(uint8_t baseVersion, uint8_t recordVersion) {
    Bytes b = BaseBlock(baseVersion);
    b.Text("Name4", 24);
    if (baseVersion >= 5) b.U8(0x01);
    b.Raw("PARM").U32(1).Raw("P1").U8(recordVersion).F32(1.25f).F32(0.0f).F32(2.0f);
    if (recordVersion < 4) b.U32(0xDEADBEEF);
    b.U32(kParamReal).U32(0).Text("Gain", 32);
    if (recordVersion >= 5) b.U32(0);
    if (recordVersion >= 3) b.U32(0);
    return b;
}

TEST_F(StateTest, OlderRecordsAndBlocksLoad) {
    for (uint8_t recordVersion = 1; recordVersion <= 5; ++recordVersion) {
        PlainDevice device;
        Declare(&device);
        ASSERT_TRUE(LoadBytes(device, OldRecordBlock(4, recordVersion).data)) << int(recordVersion);
        EXPECT_EQ(device.params.records[0].value.f, 1.25f) << int(recordVersion);
        EXPECT_STREQ(device.name, "Name4");
        // The declared range and description are never replaced.
        EXPECT_EQ(device.params.records[0].maximum.f, 2.0f);
        EXPECT_STREQ(device.params.records[0].description, "How much");
    }
    EXPECT_EQ(host.Seeds().Calls(), 0u);
}

Bytes CurrentBlockWith(const Bytes& records, uint32_t count) {
    Bytes b = BaseBlock(9);
    b.Text("", 24).U8(1).U8(0).U8(0).F32(0.5f).F32(0.5f).U32(0);
    b.U8(0xCE).U8(0xFF).Raw("PAR2").U8(1).U32(count);
    b.Raw(records.data);
    return b;
}

Bytes Record(const std::string& name, uint32_t kind, uint32_t value, uint32_t flags) {
    Bytes r;
    r.Raw("P1").U8(5).U32(value).U32(0).U32(2).U32(kind).U32(0).Text(name, 32).U32(0).U32(flags);
    if (kind == kParamChoice) r.U16(0);
    return r;
}

TEST_F(StateTest, FixedListQuirks) {
    Bytes records;
    float half = 0.25f;
    uint32_t bits;
    std::memcpy(&bits, &half, 4);
    records.Raw(Record("Unknown", kParamReal, 7, 0).data);
    records.Raw(Record("Gain", kParamReal, bits, 0).data);
    records.Raw(Record("Action", kParamAction, 99, 0).data);
    records.Raw(Record("Fixed", kParamInteger, 8, 0).data);
    PlainDevice device;
    Declare(&device);
    static const ParamSpec fixed[] = {{"Fixed", kParamInteger, 3, 0, 9, 0, nullptr, {}, kParamKeepOnLoad}};
    DeclareParameters(&device, fixed);
    device.params.records[2].value.i = 5;
    ASSERT_TRUE(LoadBytes(device, CurrentBlockWith(records, 4).data));
    EXPECT_EQ(device.params.records[0].value.f, 0.25f);  // loaded
    EXPECT_EQ(device.params.records[1].value.i, 1);      // missing from the file: default
    EXPECT_EQ(device.params.records[2].value.i, 5);      // kind 3 keeps its value
    EXPECT_EQ(device.params.records[3].value.i, 3);      // kept on load: the constructor's
    EXPECT_EQ(device.params.records.size(), 4u);
}

// A dynamic list takes the records the file holds, whatever was declared.
TEST_F(StateTest, DynamicListsTakeWhatTheFileHolds) {
    Bytes choice, negative;
    choice.Raw("P1").U8(5).U32(1).U32(1).U32(2).U32(kParamChoice).U32(0).Text("Mode", 32);
    choice.U32(0).U32(0).U16(2).Text("a", 32).Text("b", 32);
    negative.Raw("P1").U8(5).U32(0).U32(static_cast<uint32_t>(-3)).U32(5).U32(4).U32(0);
    negative.Text("C", 32).U32(0).U32(0).U16(2).Text("x", 32).Text("y", 32);
    const struct {
        const char* what;
        std::string records;
        const char* name;
        int32_t value;
        std::vector<std::string> labels;
    } cases[] = {
        {"declared ones dropped", Record("Only", kParamInteger, 4, 0).data, "Only", 4, {}},
        {"kind 3 values cleared", Record("Act", kParamAction, 77, 0).data, "Act", 0, {}},
        // Label k lands at k - minimum: with minimum 1 the first is lost, with
        // -3 both fall outside the list, which keeps its size.
        {"labels shift by the minimum", choice.data, "Mode", 1, {"b", ""}},
        {"a negative minimum stays in bounds", negative.data, "C", 0, {"", ""}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        PlainDevice device;
        device.params.dynamic = 1;
        Declare(&device);
        ASSERT_TRUE(LoadBytes(device, CurrentBlockWith(Bytes().Raw(c.records), 1).data));
        ASSERT_EQ(device.params.records.size(), 1u);
        const ParamRecord& got = device.params.records[0];
        EXPECT_STREQ(got.name, c.name);
        EXPECT_EQ(got.value.i, c.value);
        std::vector<std::string> labels;
        for (const ParamLabel& label : got.labels) labels.emplace_back(label.data());
        EXPECT_EQ(labels, c.labels);
    }
}

// Wrong tags, and counts and lengths no file of this size can hold: the
// load fails without a huge allocation.
TEST_F(StateTest, BadTagsAndHostileCountsFail) {
    std::string wrongBlock = CurrentBlockWith(Bytes(), 0).data;
    wrongBlock.replace(wrongBlock.find("PAR2"), 4, "PAR3");
    std::string wrongDevice = BaseBlock(9).data;
    wrongDevice.replace(0, 4, "XXXX");
    const struct {
        const char* what;
        std::string bytes;
    } cases[] = {
        {"device tag", wrongDevice},
        {"base tag", Bytes().Raw("TEST").U8(1).Raw("SPRX").U8(9).data},
        {"block tag", wrongBlock},
        {"record tag", CurrentBlockWith(Bytes().Raw("Q1"), 1).data},
        {"huge record count", CurrentBlockWith(Bytes(), 0x7FFFFFFF).data},
        {"huge description",
         CurrentBlockWith(Bytes().Raw("P1").U8(5).U32(0).U32(0).U32(1).U32(1).U32(0).Text("G", 32).U32(0xFFFFFFF0), 1).data},
        {"huge label count and range",
         CurrentBlockWith(Bytes().Raw("P1").U8(5).U32(0).U32(0x80000000).U32(0x7FFFFFFF).U32(4).U32(0).Text("C", 32).U32(0).U32(0).U16(0x7FFF), 1).data},
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

TEST_F(StateTest, EveryTruncationFailsCleanly) {
    PlainDevice source;
    Declare(&source);
    std::string bytes = SavedBytes(source);
    int64_t outstanding = Outstanding();
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
        PlainDevice device;
        Declare(&device);
        EXPECT_FALSE(LoadBytes(device, bytes.substr(0, cut))) << "cut at " << cut;
    }
    EXPECT_EQ(Outstanding(), outstanding);
}

TEST_F(StateTest, RandomCorruptionNeverCrashes) {
    PlainDevice source;
    Declare(&source);
    std::string bytes = SavedBytes(source);
    std::mt19937 random(7);
    for (int round = 0; round < 2000; ++round) {
        std::string damaged = bytes;
        int flips = 1 + static_cast<int>(random() % 6);
        for (int f = 0; f < flips; ++f)
            damaged[random() % damaged.size()] = static_cast<char>(random());
        PlainDevice device;
        Declare(&device);
        LoadBytes(device, damaged);
        // Whatever the answer, the device stays whole: it saves and reloads.
        std::string again = SavedBytes(device);
        PlainDevice reloaded;
        Declare(&reloaded);
        ASSERT_TRUE(LoadBytes(reloaded, again)) << "round " << round;
    }
}

}  // namespace
