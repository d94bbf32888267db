#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "TestHost.h"
#include "TestDevices.h"
#include "devices/generators/ConstantHeight.h"

namespace {

using namespace basekit::testing;

using DeviceTest = FrameworkTest;

TEST_F(DeviceTest, NodeSizeFollowsParametersAndPorts) {
    const struct {
        int parameters, inputs, outputs;
        int width, height;
    } cases[] = {{0, 0, 0, 64, 24}, {3, 0, 0, 65, 24}, {10, 0, 0, 114, 24}, {0, 2, 1, 64, 34}};
    for (const auto& c : cases) {
        PlainDevice device;
        for (int i = 0; i < c.parameters; ++i) {
            ParamRecord record;
            const std::string name = std::to_string(i);
            record.SetName(name.c_str());
            record.kind = kParamReal;
            AddParameter(&device, record, 0);
        }
        if (c.inputs + c.outputs) SetPortCount(&device, c.inputs, c.outputs, kHeightField);
        EXPECT_EQ(device.GetNodeWidth(), c.width) << c.parameters << " parameters";
        EXPECT_EQ(device.GetNodeHeight(), c.height) << c.inputs << " inputs";
        EXPECT_EQ(device.paramPorts.size(), static_cast<size_t>(c.parameters));
    }
}

TEST_F(DeviceTest, NamesAreCutAndDefaulted) {
    PlainDevice device;
    EXPECT_STREQ(device.GetName(), "Plain");
    device.SetName("abcdefghijklmnopqrstuvwxyz0123");
    EXPECT_STREQ(device.GetName(), "abcdefghijklmnopqrstuvw");
    SetPortCount(&device, 2, 1, kHeightField);
    EXPECT_STREQ(device.GetInputName(1), "Primary Input");
    EXPECT_STREQ(device.GetInputName(5), "Primary Input");
    device.inputs[0]->SetName("Heights");
    EXPECT_STREQ(device.GetInputName(0), "Heights");
    EXPECT_STREQ(device.GetOutputName(3), "Primary Output");
    device.inputs[1]->SetName("123456789012345678901234567890");
    EXPECT_STREQ(device.inputs[1]->name, "12345678901234567890123");
}

// The other defaults are pinned by the saved bytes of a plain device.
TEST_F(DeviceTest, ConstructionMakesTheSpecialPorts) {
    PlainDevice device;
    EXPECT_EQ(device.identity.terminator, '\0');
    ASSERT_NE(device.maskInput, nullptr);
    EXPECT_STREQ(device.maskInput->name, "Mask Input");
    EXPECT_EQ(device.maskInput->kind, kHeightField);
    EXPECT_EQ(device.maskInput->role, 2u);
    EXPECT_STREQ(device.coordInput->name, "Coordinate Input");
    EXPECT_EQ(device.coordInput->kind, kCoordinateData);
    EXPECT_EQ(device.params.device, &device);
}

TEST_F(DeviceTest, AddPortPositions) {
    PlainDevice device;
    device.owner = &recorder;
    device.AddPort(0, 0, kHeightField, 0xFFFFFFFFu);
    device.inputs[0]->SetName("first");
    device.AddPort(0, 0, kBitmap, 0xFFFFFFFFu);
    device.inputs[1]->SetName("appended");
    device.AddPort(0, 0, kHeightField, 0);
    device.inputs[0]->SetName("front");
    ASSERT_EQ(device.inputs.size(), 3u);
    EXPECT_STREQ(device.inputs[1]->name, "first");
    EXPECT_STREQ(device.inputs[2]->name, "appended");
    EXPECT_EQ(device.inputs[2]->kind, kBitmap);
    EXPECT_EQ(device.inputs[0]->owner, &device);
    device.AddPort(1, 0, kHeightField, 0xFFFFFFFFu);
    EXPECT_EQ(device.outputs.size(), 1u);
    EXPECT_EQ(recorder.portsChanged.size(), 4u);
    device.RemovePort(0, 0);
    EXPECT_STREQ(device.inputs[0]->name, "first");
    EXPECT_EQ(recorder.portsChanged.size(), 5u);
}

TEST_F(DeviceTest, CopyFromCopiesEverythingButIdentity) {
    TestAdd source;
    source.SetName("Source");
    source.params.records[0].value.f = 0.75f;
    source.anchor[0] = 0.1f;
    source.mode = 1;
    source.seed = 77;
    source.enabled = 0;
    source.placement[3] = 9;
    source.paramPorts[0]->SetName("Driven");
    TestAdd copy;
    copy.CopyFrom(&source);
    EXPECT_STREQ(copy.name, "Source");
    EXPECT_FLOAT_EQ(copy.params.records[0].value.f, 0.75f);
    EXPECT_EQ(copy.params.device, &copy);
    EXPECT_STREQ(copy.params.records[0].description, "Added to the input");
    EXPECT_NE(copy.params.records[0].description, source.params.records[0].description);
    EXPECT_STREQ(copy.paramPorts[0]->name, "Driven");
    EXPECT_EQ(copy.paramPorts[0]->owner, &copy);
    EXPECT_FLOAT_EQ(copy.anchor[0], 0.1f);
    EXPECT_EQ(copy.mode, 1u);
    EXPECT_EQ(copy.seed, 77);
    EXPECT_EQ(copy.enabled, 0);
    EXPECT_EQ(copy.placement[3], 9);
    EXPECT_NE(copy.inputs[0], source.inputs[0]);
}

TEST_F(DeviceTest, ProcessStatuses) {
    BuildResultSet results;
    BuildContext context = MakeBuildContext(Grid{4, 4}, &results, &recorder);
    PlainDevice device;
    device.enabled = 0;
    EXPECT_EQ(device.Process(context), -2);
    device.enabled = 1;
    EXPECT_EQ(device.Process(context), 1);
    device.buildAnswer = false;
    EXPECT_EQ(device.Process(context), 0);
    doGetDevice(&results, &device).status = 2;
    EXPECT_EQ(device.Process(context), -1);
    // A framework misuse inside the build is caught.
    BuildContext broken = context;
    broken.results = nullptr;
    EXPECT_EQ(device.Process(broken), 2);
}

TEST_F(DeviceTest, BypassedFilterPassesItsInputThrough) {
    BuildResultSet results;
    BuildContext context = MakeBuildContext(Grid{3, 2}, &results, &recorder);
    basekit::ConstantHeight source;
    source.params.records[0].value.f = 0.5f;
    TestAdd filter;
    source.outputs[0]->Connect(filter.inputs[0]);
    ASSERT_EQ(source.Process(context), 1);
    filter.bypassed = 1;
    ASSERT_EQ(filter.Process(context), 1);
    const PacketRef& out = doGetDevice(&results, &filter).outputs[0];
    ASSERT_TRUE(out);
    for (uint64_t i = 0; i < out->PointCount(); ++i) EXPECT_EQ(out->samples[i], 0.5f);
    filter.bypassed = 0;
    ASSERT_EQ(filter.Process(context), 1);
    const PacketRef& built = doGetDevice(&results, &filter).outputs[0];
    EXPECT_EQ(built->samples[0], 0.5f + 0.1f);
    // The upstream packet was copied, not changed.
    EXPECT_EQ(doGetDevice(&results, &source).outputs[0]->samples[0], 0.5f);
}

TEST_F(DeviceTest, OutputModeForcesTheMaskFlag) {
    const struct {
        uint32_t mode;
        int32_t flag;
    } cases[] = {{0, 0}, {1, 1}, {2, 0}};
    for (const auto& c : cases) {
        BuildResultSet results;
        BuildContext context = MakeBuildContext(Grid{2, 2}, &results, &recorder);
        basekit::ConstantHeight device;
        device.outputMode = c.mode;
        ASSERT_EQ(device.Process(context), 1);
        EXPECT_EQ(doGetDevice(&results, &device).outputs[0]->maskFlag, c.flag) << c.mode;
    }
}

TEST_F(DeviceTest, EstimateMemoryCountsLinks) {
    TestAdd a, b, c;
    EXPECT_EQ(a.EstimateMemory(), 0u);  // no owner
    a.owner = &recorder;
    a.outputs[0]->Connect(b.inputs[0]);
    a.outputs[0]->Connect(c.inputs[0]);
    EXPECT_EQ(a.EstimateMemory(), 3u * 400u);
}

}  // namespace
