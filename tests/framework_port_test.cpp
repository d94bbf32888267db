#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "TestDevices.h"
#include "TestHost.h"
#include "devices/generators/ConstantHeight.h"

namespace {

using namespace basekit::testing;

using PortTest = FrameworkTest;

// The input-link handler runs once a link is in place, whichever side made it.
TEST_F(PortTest, InputLinkHandlerSeesSettledLinks) {
    struct Watched : TestAdd {
        std::vector<const Port*> seen;  // input 0's peer at each call
        Watched() {
            inputLinksChanged = [](Device& d) {
                auto& w = static_cast<Watched&>(d);
                w.seen.push_back(w.inputs[0]->peer);
            };
        }
    };
    TestAdd a, b;
    Watched w;
    a.owner = b.owner = w.owner = &recorder;
    a.outputs[0]->Connect(w.inputs[0]);
    w.inputs[0]->Connect(b.outputs[0]);
    w.inputs[0]->Disconnect(nullptr);
    b.outputs[0]->Connect(w.inputs[0]);
    b.outputs[0]->Disconnect(nullptr);
    a.outputs[0]->Connect(b.inputs[0]);
    const std::vector<const Port*> expected = {a.outputs[0], b.outputs[0], nullptr, b.outputs[0],
                                               nullptr};
    EXPECT_EQ(w.seen, expected);
    EXPECT_EQ(recorder.connections.size(), 14u);  // the owner is told as before
}

// Connecting notifies both owners and refuses duplicates; disconnecting,
// moving an input and destroying a device unlink both sides.
TEST_F(PortTest, ConnectDisconnectMoveAndDestruction) {
    TestAdd a, b, c;
    a.owner = b.owner = c.owner = &recorder;
    EXPECT_TRUE(a.outputs[0]->Connect(b.inputs[0]));
    EXPECT_FALSE(a.outputs[0]->Connect(b.inputs[0]));
    EXPECT_FALSE(a.outputs[0]->Connect(nullptr));
    EXPECT_EQ(a.outputs[0]->links.size(), 1u);
    EXPECT_EQ(b.inputs[0]->GetPeer(), a.outputs[0]);
    EXPECT_EQ(a.outputs[0]->GetPeerDevice(), &b);
    ASSERT_EQ(recorder.connections.size(), 2u);
    EXPECT_EQ(recorder.connections[0], std::make_tuple(static_cast<Device*>(&a), 1u, 0u, 1u));
    EXPECT_EQ(recorder.connections[1], std::make_tuple(static_cast<Device*>(&b), 0u, 0u, 1u));
    a.outputs[0]->Connect(c.inputs[0]);
    EXPECT_TRUE(b.inputs[0]->Disconnect(nullptr));
    EXPECT_EQ(b.inputs[0]->peer, nullptr);
    ASSERT_EQ(a.outputs[0]->links.size(), 1u);
    EXPECT_EQ(a.outputs[0]->links[0], c.inputs[0]);
    EXPECT_EQ(recorder.linkQueries, 1);
    a.outputs[0]->Disconnect(nullptr);
    EXPECT_TRUE(a.outputs[0]->links.empty());
    EXPECT_EQ(c.inputs[0]->peer, nullptr);

    // An input moves to a new output.
    a.outputs[0]->Connect(c.inputs[0]);
    b.outputs[0]->Connect(c.inputs[0]);
    EXPECT_TRUE(a.outputs[0]->links.empty());
    EXPECT_EQ(c.inputs[0]->peer, b.outputs[0]);

    // Destroyed devices leave no dangling links, on either side.
    auto* downstream = new TestAdd;
    a.outputs[0]->Connect(downstream->inputs[0]);
    delete downstream;
    EXPECT_TRUE(a.outputs[0]->links.empty());
    auto* upstream = new TestAdd;
    upstream->outputs[0]->Connect(b.inputs[0]);
    delete upstream;
    EXPECT_EQ(b.inputs[0]->peer, nullptr);
}

// A fan-out gives each device its own copy; a pushed input is used once;
// a missing, unconnected or unbuilt input is null.
TEST_F(PortTest, InputPacketsAreCopiesPushedOnesUsedOnce) {
    BuildResultSet results;
    BuildContext context = MakeBuildContext(Grid{4, 3}, &results, &recorder);
    basekit::ConstantHeight source;
    source.params.records[0].value.f = 0.5f;
    TestAdd left, right, alone, unbuilt;
    source.outputs[0]->Connect(left.inputs[0]);
    source.outputs[0]->Connect(right.inputs[0]);
    EXPECT_FALSE(GetInputPacket(&left, 0, context));  // upstream built nothing yet
    ASSERT_EQ(source.Process(context), 1);
    PacketRef one = GetInputPacket(&left, 0, context);
    PacketRef two = GetInputPacket(&right, 0, context);
    ASSERT_TRUE(one && two);
    EXPECT_NE(one.get(), two.get());
    EXPECT_NE(one.get(), doGetDevice(&results, &source).outputs[0].get());
    EXPECT_STREQ(one->name, "RetrievedData");
    one->samples[0] = 0.0f;
    EXPECT_EQ(two->samples[0], 0.5f);

    PacketRef pushed = NewHeightField(Grid{4, 3});
    pushed->samples[0] = 0.125f;
    std::vector<Port*> ports{left.inputs[0]};
    auto give = [](Port*, void* packet) { return *static_cast<PacketRef*>(packet); };
    EXPECT_EQ(PushInputs(&results, ports, give, &pushed), 1u);
    EXPECT_EQ(GetInputPacket(&left, 0, context).get(), pushed.get());
    PacketRef second = GetInputPacket(&left, 0, context);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->samples[0], 0.5f);
    // A device whose result cannot be used takes no pushed input.
    doGetDevice(&results, &right).status = 2;
    std::vector<Port*> skipped{right.inputs[0]};
    EXPECT_EQ(PushInputs(&results, skipped, give, &pushed), 0u);

    EXPECT_FALSE(GetInputPacket(&alone, 0, context));
    EXPECT_FALSE(GetInputPacket(&alone, 7, context));
    unbuilt.outputs[0]->Connect(alone.inputs[0]);
    EXPECT_FALSE(GetInputPacket(&alone, 0, context));
    EXPECT_EQ(alone.Process(context), 0);
    EXPECT_FALSE(doGetDevice(&results, &alone).outputs[0]);
}

// A device's first result makes a slot for each output, pushed input and
// parameter; SetOutput names the packet and ignores slots past the last.
TEST_F(PortTest, ResultSlotsAndSetOutput) {
    BuildResultSet results;
    EXPECT_EQ(ThrownMessage([&] { doGetDevice(&results, nullptr); }),
              "Null device pointer to doGetDevice()!");
    TestAdd device;
    DeviceResult& first = doGetDevice(&results, &device);
    EXPECT_EQ(first.outputs.size(), 1u);
    EXPECT_EQ(first.pushedInputs.size(), 1u);
    EXPECT_EQ(first.parameters.size(), 4u);
    EXPECT_EQ(&doGetDevice(&results, &device), &first);

    BuildContext context = MakeBuildContext(Grid{2, 2}, &results, &recorder);
    device.SetName("Long instance name here");
    PacketRef packet = NewHeightField(Grid{2, 2});
    SetOutput(&device, packet, 12, context);
    EXPECT_STREQ(packet->name, "Long instance name here: slot 1");
    EXPECT_FALSE(first.outputs[0]);
    device.SetName("Blur");
    SetOutput(&device, packet, 0, context);
    EXPECT_STREQ(packet->name, "Blur: slot 0");
    EXPECT_EQ(first.outputs[0].get(), packet.get());
}

// Inputs, outputs, parameter ports, mask and coordinates: `where` 0 to 4.
TEST_F(PortTest, FindPortCoversEveryKind) {
    TestAdd device, other;
    const Port* ports[] = {device.inputs[0], device.outputs[0], device.paramPorts[2],
                           device.maskInput, device.coordInput};
    for (uint32_t kind = 0; kind < 5; ++kind) {
        uint32_t index = 99, where = 99;
        EXPECT_TRUE(FindPort(&device, ports[kind], index, where)) << kind;
        EXPECT_EQ(where, kind);
        EXPECT_EQ(index, kind == 2 ? 2u : 0u) << kind;
    }
    uint32_t index, where;
    EXPECT_FALSE(FindPort(&device, other.inputs[0], index, where));
}

}  // namespace
