#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "TestHost.h"
#include "TestDevices.h"

namespace {

using namespace basekit::testing;

class ParameterTest : public FrameworkTest {
protected:
    PacketRef ParameterPacket(float value) {
        PacketRef packet = NewPacket(kParameterPacket, Grid{1, 1});
        packet->samples[0] = value;
        return packet;
    }

    // A device with one parameter driven by a pushed packet of `x`.
    float Folded(uint32_t kind, float low, float high, uint32_t options, uint32_t flags, float x) {
        PlainDevice device;
        device.owner = &recorder;
        ParamRecord record;
        record.SetName("Driven");
        record.kind = kind;
        record.options = options;
        if (kind == kParamReal) {
            record.minimum.f = low;
            record.maximum.f = high;
        } else {
            record.minimum.i = static_cast<int32_t>(low);
            record.maximum.i = static_cast<int32_t>(high);
        }
        AddParameter(&device, record, flags);
        BuildResultSet results;
        recorder.results = &results;
        doGetDevice(&results, &device).parameters[0] = ParameterPacket(x);
        ParamValue* value = GetParameter(&device, "Driven");
        recorder.results = nullptr;
        return kind == kParamReal ? value->f : static_cast<float>(value->i);
    }

};

TEST_F(ParameterTest, PacketsFoldIntoTheRange) {
    const float curveHalf = (std::pow(2.0f, 0.0f) - 0.0625f) / 15.9375f;
    const struct {
        const char* what;
        uint32_t kind;
        float low, high;
        uint32_t options, flags;
        float packet, expected;
    } cases[] = {
        {"fraction of 0..1", kParamReal, 0, 1, 0, 0, 0.25f, 0.25f},
        {"fraction of 100..300", kParamReal, 100, 300, 0, 0, 0.25f, 150.0f},
        {"curve at 1 is the maximum", kParamReal, 2, 7, 1, 0, 1.0f, 7.0f},
        {"curve at 0 is the minimum", kParamReal, 2, 7, 1, 0, 0.0f, 2.0f},
        {"curve at 0.5", kParamReal, 0, 1, 1, 0, 0.5f, curveHalf},
        {"absolute above the range", kParamReal, 0, 1, 0, 4, 5.0f, 1.0f},
        {"absolute below the range", kParamReal, 0, 1, 0, 4, -2.0f, 0.0f},
        {"absolute inside the range", kParamReal, 0, 10, 0, 4, 3.5f, 3.5f},
        {"integer fraction", kParamInteger, 0, 128, 0, 0, 0.5f, 64.0f},
    };
    for (const auto& c : cases)
        EXPECT_FLOAT_EQ(Folded(c.kind, c.low, c.high, c.options, c.flags, c.packet), c.expected)
            << c.what;
    EXPECT_NEAR(curveHalf, 0.0588f, 1e-4f);
}

TEST_F(ParameterTest, WithoutAPacketTheValueStays) {
    PlainDevice device;
    device.owner = &recorder;
    ParamRecord record;
    record.SetName("Alone");
    record.kind = kParamReal;
    record.value.f = 0.4f;
    record.maximum.f = 1.0f;
    AddParameter(&device, record, 0);
    BuildResultSet results;
    recorder.results = &results;
    EXPECT_FLOAT_EQ(GetParameter(&device, "Alone")->f, 0.4f);
    recorder.results = nullptr;
    EXPECT_FLOAT_EQ(GetParameter(&device, "Alone")->f, 0.4f);
}

TEST_F(ParameterTest, LinkedUpstreamOutputDrivesTheValue) {
    PlainDevice source;
    SetPortCount(&source, 0, 1, kParameterPacket);
    TestAdd device;
    device.owner = &recorder;
    source.outputs[0]->Connect(device.paramPorts[0]);
    BuildResultSet results;
    recorder.results = &results;
    doGetDevice(&results, &source).outputs[0] = ParameterPacket(0.75f);  // of -1..1
    EXPECT_FLOAT_EQ(GetParameter(&device, "Amount")->f, 0.5f);
    recorder.results = nullptr;
    // The folded value stays, so the next save writes it.
    EXPECT_FLOAT_EQ(device.params.records[0].value.f, 0.5f);
}

TEST_F(ParameterTest, FindParameterIsExact) {
    PlainDevice device;
    for (const char* name : {"Radius", "Type", "Radius"}) {
        ParamRecord record;
        record.SetName(name);
        AddParameter(&device, record, 0);
    }
    EXPECT_EQ(FindParameter(device.params, "Radius"), 0);
    EXPECT_EQ(FindParameter(device.params, "Type"), 1);
    EXPECT_EQ(FindParameter(device.params, "radius"), -1);
    EXPECT_EQ(FindParameter(device.params, "Radiu"), -1);
    EXPECT_EQ(FindParameter(device.params, nullptr), -1);
    PlainDevice empty;
    EXPECT_EQ(FindParameter(empty.params, "Radius"), -1);
}

TEST_F(ParameterTest, UnknownNameThrowsAndChangesNothing) {
    TestAdd device;
    device.params.records[0].value.f = 0.3f;
    EXPECT_EQ(ThrownMessage<ParameterException>([&] { GetParameter(&device, "Nope"); }),
              "Parameter specified does not exist!");
    EXPECT_FLOAT_EQ(device.params.records[0].value.f, 0.3f);
}

TEST_F(ParameterTest, AddParameterTakesTheRecordAndMakesAPort) {
    PlainDevice device;
    device.owner = &recorder;
    ParamRecord record;
    record.SetName("Choice");
    record.kind = kParamChoice;
    record.AddLabel("One");
    record.SetDescription("text");
    record.flags = 64;
    AddParameter(&device, record, 4);
    EXPECT_EQ(record.description, nullptr);
    EXPECT_TRUE(record.labels.empty());
    const ParamRecord& kept = device.params.records[0];
    EXPECT_EQ(kept.flags, 4u);
    EXPECT_STREQ(kept.description, "text");
    ASSERT_EQ(device.paramPorts.size(), 1u);
    EXPECT_STREQ(device.paramPorts[0]->name, "Default");
    EXPECT_EQ(device.paramPorts[0]->kind, 3u);
    EXPECT_EQ(recorder.portsChanged.size(), 1u);
}

TEST_F(ParameterTest, RecordsCopyTheirDescriptionsThroughTheHost) {
    int64_t before = Outstanding();
    {
        ParamRecord a;
        a.SetDescription("shared text");
        ParamRecord b = a;
        EXPECT_NE(a.description, b.description);
        EXPECT_STREQ(b.description, "shared text");
        EXPECT_EQ(Outstanding(), before + 2);
    }
    EXPECT_EQ(Outstanding(), before);
}

}  // namespace
