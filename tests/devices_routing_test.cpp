// Switch, Router, Route Picker, Integer Equals and Checkpoint in networks of
// the reference host: which packet goes where (and nothing where nothing
// should), port counts that follow their settings with links present, saved
// counts that rebuild the ports, integer comparison of parameter packets fed
// by the host's Value device, bitmaps and masks through chains of routing
// devices on one thread and on several, and network files that link to and
// export the ports the settings create.

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "host/NetworkFile.h"
#include "host/ValueInput.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using basekit::testing::LoadBytes;
using basekit::testing::SavedBytes;
using Orogen::Device;
using Orogen::GetParameter;

// The id of the source feeding input `index`: "s<index>".
std::string SourceId(int64_t index) {
    std::string id = std::to_string(index);
    return id.insert(0, 1, 's');
}

class RoutingTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        host->RegisterHostType(&Orogen::CreateDevice<TestColors>, 1, 8);
        host->Workers().Resize(3);
    }

    // Sets integer parameters and confirms them as the settings dialog does.
    void Settle(Network& network, const std::string& id,
                const std::vector<std::pair<const char*, int32_t>>& params) {
        host->Dialogs().Script(1, [&](Device& device) {
            for (const auto& [name, value] : params) GetParameter(&device, name)->i = value;
        });
        network.EditSettings(id);
    }

    // A ramp "s<i>" of its own height for every input index.
    void AddSource(Network& network, uint32_t index) {
        const std::string id = SourceId(index);
        network.AddDevice(id, "Test Ramp");
        GetParameter(&network.Get(id), "Offset")->f = 0.01f * static_cast<float>(index + 1);
    }

    static const ParamRecord& Record(Device& device, const char* name) {
        return device.params.records[static_cast<size_t>(FindParameter(device.params, name))];
    }

    static size_t Count(Network& network, const std::string& id, OwnerEvent::Kind kind) {
        size_t n = 0;
        for (const OwnerEvent& e : network.Events(id)) n += e.kind == kind;
        return n;
    }
};

using Orogen::FindParameter;
using Orogen::ParamRecord;

TEST_F(RoutingTest, EachDevicePassesTheChosenPacketOrNothing) {
    const struct {
        const char* type;
        std::vector<std::pair<const char*, int32_t>> params;
        std::vector<uint32_t> linked;  // inputs fed by a source "s<i>" of their own
        bool built;
        uint32_t outputs;
        std::map<uint32_t, uint32_t> routes;  // output: the input whose packet it holds
    } cases[] = {
        {"Switch", {}, {0, 1}, true, 1, {{0, 0}}},
        {"Switch", {{"Input choice", 1}}, {0, 1}, true, 1, {{0, 1}}},
        {"Switch", {{"Input choice", 1}}, {0}, false, 1, {}},
        {"Switch", {}, {}, false, 1, {}},
        {"Switch", {}, {1}, false, 1, {}},
        {"Switch", {{"Input choice", 2}}, {0, 1}, false, 1, {}},
        {"Router", {{"Output Choice", 1}}, {0}, true, 2, {{1, 0}}},
        {"Router", {{"Output Choice", 3}}, {0}, true, 2, {}},
        {"Router", {{"Number of Outputs", 5}, {"Output Choice", 4}}, {0}, true, 5, {{4, 0}}},
        {"Router", {}, {}, false, 2, {}},
        {"Route Picker", {{"Input Choice", 1}}, {0, 1}, true, 1, {{0, 1}}},
        {"Route Picker", {{"Input Choice", 1}}, {0}, false, 1, {}},
        {"Route Picker", {{"Input Choice", 5}}, {0, 1}, false, 1, {}},
        {"Route Picker", {{"Number of Inputs", 3}, {"Input Choice", 2}}, {1, 2}, true, 1, {{0, 2}}},
        {"Checkpoint", {}, {}, true, 3, {}},
        {"Checkpoint", {}, {1}, true, 3, {{1, 1}}},
        {"Checkpoint",
         {{"Number of Ports", 32}},
         {0, 5, 17, 31},
         true,
         32,
         {{0, 0}, {5, 5}, {17, 17}, {31, 31}}},
    };
    for (size_t n = 0; n < std::size(cases); ++n) {
        const auto& c = cases[n];
        SCOPED_TRACE(::testing::Message() << "case " << n << ": " << c.type);
        auto network = MakeNetwork(13, 9);
        Device& device = network->AddDevice("d", c.type);
        Settle(*network, "d", c.params);
        for (uint32_t i : c.linked) {
            AddSource(*network, i);
            network->Connect(SourceId(i), 0, "d", i);
        }
        ASSERT_EQ(device.outputs.size(), c.outputs);
        BuildReport report = network->Build({});
        EXPECT_EQ(report.Find("d")->status, c.built ? BuildStatus::Built : BuildStatus::Failed)
            << report.Find("d")->message;
        for (uint32_t k = 0; k < c.outputs; ++k) {
            Orogen::PacketRef out = network->Output("d", k);
            ASSERT_EQ(static_cast<bool>(out), c.routes.count(k) > 0) << "output " << k;
            if (!out) continue;
            Orogen::PacketRef source = network->Output(SourceId(c.routes.at(k)), 0);
            EXPECT_NE(out.get(), source.get());  // a private duplicate
            EXPECT_TRUE(SameBits(SamplesOf(out), SamplesOf(source)));
            EXPECT_EQ(std::string(out->name),
                      std::string(device.GetTypeName()) + ": slot " + std::to_string(k));
        }
    }
}

TEST_F(RoutingTest, PortCountsFollowTheirSettingsAndKeepSurvivingLinks) {
    auto network = MakeNetwork();
    network->AddDevice("src", "Test Ramp");
    Device& router = network->AddDevice("r", "Router");
    network->AddDevice("a0", "Test Add");
    network->AddDevice("a1", "Test Add");
    network->Connect("src", 0, "r", 0);
    network->Connect("r", 0, "a0", 0);
    network->Connect("r", 1, "a1", 0);
    network->ClearEvents();

    Settle(*network, "r", {{"Number of Outputs", 4}});
    ASSERT_EQ(router.outputs.size(), 4u);
    EXPECT_EQ(router.outputs[0]->links, std::vector<Orogen::Port*>{network->Get("a0").inputs[0]});
    EXPECT_EQ(router.outputs[1]->links, std::vector<Orogen::Port*>{network->Get("a1").inputs[0]});
    EXPECT_EQ(router.inputs[0]->peer, network->Get("src").outputs[0]);
    for (const Orogen::OutputPort* port : router.outputs)
        EXPECT_EQ(port->role, Orogen::kRoleOptional);
    EXPECT_EQ(Record(router, "Output Choice").maximum.i, 3);
    EXPECT_EQ(Count(*network, "r", OwnerEvent::PortsChanged), 1u);
    EXPECT_GE(Count(*network, "r", OwnerEvent::Edited), 1u);

    // Fewer outputs: the link of the output that goes is broken on both sides.
    Settle(*network, "r", {{"Number of Outputs", 1}});
    ASSERT_EQ(router.outputs.size(), 1u);
    EXPECT_EQ(router.outputs[0]->links.size(), 1u);
    EXPECT_EQ(network->Get("a1").inputs[0]->peer, nullptr);
    EXPECT_EQ(Record(router, "Output Choice").maximum.i, 0);
    EXPECT_EQ(network->Links().size(), 2u);
    // A cancelled dialog changes nothing.
    host->Dialogs().Script(-1, [](Device& d) { GetParameter(&d, "Number of Outputs")->i = 6; });
    network->EditSettings("r");
    EXPECT_EQ(router.outputs.size(), 1u);
    EXPECT_EQ(GetParameter(&router, "Number of Outputs")->i, 1);

    Device& picker = network->AddDevice("p", "Route Picker");
    Settle(*network, "p", {{"Number of Inputs", 3}});
    network->Connect("a0", 0, "p", 0);
    network->Connect("src", 0, "p", 2);
    Settle(*network, "p", {{"Number of Inputs", 2}});
    ASSERT_EQ(picker.inputs.size(), 2u);
    EXPECT_EQ(picker.inputs[0]->peer, network->Get("a0").outputs[0]);
    EXPECT_EQ(network->Get("src").outputs[0]->links.size(), 1u);  // only the router's input
    EXPECT_STREQ(picker.GetInputName(1), "Choice Input");
    EXPECT_EQ(picker.inputs[1]->role, Orogen::kRoleOptional);
    EXPECT_EQ(Record(picker, "Input Choice").maximum.i, 1);
}

TEST_F(RoutingTest, CheckpointProtectsLinkedPortsAndResizesOnAcceptOnly) {
    auto network = MakeNetwork();
    network->AddDevice("src", "Test Ramp");
    network->AddDevice("a", "Test Add");
    Device& checkpoint = network->AddDevice("c", "Checkpoint");
    Settle(*network, "c", {{"Number of Ports", 6}});
    network->Connect("src", 0, "c", 4);
    network->Connect("c", 2, "a", 0);
    host->Network().ClearNotifications();

    const struct {
        int32_t answer;
        int32_t asked;
        uint32_t ports;  // after the dialog
        bool changed;    // the host was told
    } steps[] = {{1, 2, 5, true}, {-1, 9, 5, true}, {1, 8, 8, true}, {1, 8, 8, false}};
    for (const auto& s : steps) {
        SCOPED_TRACE(::testing::Message() << s.answer << " " << s.asked);
        host->Network().ClearNotifications();
        host->Dialogs().Script(
            s.answer, [&](Device& d) { GetParameter(&d, "Number of Ports")->i = s.asked; });
        network->EditSettings("c");
        // Input 4 is the highest port in use: no fewer than 5 ports.
        EXPECT_EQ(Record(checkpoint, "Number of Ports").minimum.i, 5);
        EXPECT_EQ(checkpoint.inputs.size(), s.ports);
        EXPECT_EQ(checkpoint.outputs.size(), s.ports);
        EXPECT_EQ(GetParameter(&checkpoint, "Number of Ports")->i, static_cast<int32_t>(s.ports));
        EXPECT_EQ(checkpoint.inputs[4]->peer, network->Get("src").outputs[0]);
        EXPECT_EQ(checkpoint.outputs[2]->links.size(), 1u);
        const auto changed = host->Network().Changed();
        EXPECT_EQ(std::count(changed.begin(), changed.end(), &checkpoint) > 0, s.changed);
    }
}

TEST_F(RoutingTest, SavedCountsRebuildThePortsOnLoad) {
    const struct {
        const char* type;
        const char* count;
        int32_t value;
        size_t inputs, outputs;
        const char* choice;  // the parameter whose range follows, or null
        uint8_t version;
    } cases[] = {
        {"Router", "Number of Outputs", 5, 1, 5, "Output Choice", 1},
        {"Route Picker", "Number of Inputs", 7, 7, 1, "Input Choice", 1},
        {"Checkpoint", "Number of Ports", 12, 12, 12, nullptr, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        auto network = MakeNetwork();
        Device& saved = network->AddDevice("a", c.type);
        Settle(*network, "a", {{c.count, c.value}});
        if (c.choice) GetParameter(&saved, c.choice)->i = c.value - 1;
        const std::string bytes = SavedBytes(saved);
        ASSERT_GE(bytes.size(), 57u);
        EXPECT_EQ(bytes.substr(0, 4), std::string(saved.identity.tag, 4));
        EXPECT_EQ(static_cast<uint8_t>(bytes[4]), c.version);
        EXPECT_EQ(bytes.substr(5, 4), "SPRK");  // no fields of their own

        Device& loaded = network->AddDevice("b", c.type);
        network->ClearEvents();
        ASSERT_TRUE(LoadBytes(loaded, bytes));
        EXPECT_EQ(loaded.inputs.size(), c.inputs);
        EXPECT_EQ(loaded.outputs.size(), c.outputs);
        EXPECT_GE(Count(*network, "b", OwnerEvent::PortsChanged), 1u);
        if (c.choice) {
            EXPECT_EQ(Record(loaded, c.choice).maximum.i, c.value - 1);
            EXPECT_EQ(GetParameter(&loaded, c.choice)->i, c.value - 1);
        }
        // The same state but for the seed (bytes 53..56), fetched afresh.
        const std::string again = SavedBytes(loaded);
        EXPECT_EQ(again.substr(0, 53) + again.substr(57), bytes.substr(0, 53) + bytes.substr(57));

        // Another device's state is refused and changes nothing.
        Device& other = network->AddDevice("o", "Switch");
        EXPECT_FALSE(LoadBytes(other, bytes));
        EXPECT_EQ(other.inputs.size(), 2u);
    }
}

// Integer Equals' answer, linked to a Switch's choice, picks its input.
TEST_F(RoutingTest, IntegerEqualsComparesIntegerPacketsOnlyAndDrivesASwitch) {
    const struct {
        const char* name;
        const char* source;  // "value", "ramp" or "none"
        float value;
        uint32_t code;
        int32_t comparison;
        BuildStatus status;
        float answer;
    } cases[] = {
        {"65535 = 65535", "value", 65535.0f, 0, 65535, BuildStatus::Built, 1.0f},
        {"choice code", "value", 12.0f, 4, 12, BuildStatus::Built, 1.0f},
        {"3 != 4", "value", 3.0f, 0, 4, BuildStatus::Built, 0.0f},
        {"0 = 0", "value", 0.0f, 0, 0, BuildStatus::Built, 1.0f},
        {"negative", "value", -1.0f, 0, 0, BuildStatus::Built, 0.0f},
        {"fraction", "value", 2.5f, 0, 2, BuildStatus::Built, 0.0f},
        {"true/false packet", "value", 1.0f, 2, 1, BuildStatus::Failed, 0.0f},
        {"real packet", "value", 1.0f, 1, 1, BuildStatus::Failed, 0.0f},
        {"height field", "ramp", 0.0f, 0, 0, BuildStatus::Failed, 0.0f},
        {"nothing linked", "none", 0.0f, 0, 0, BuildStatus::Failed, 0.0f},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        auto network = MakeNetwork(5, 4);
        Device& equals = network->AddDevice("eq", "Integer Equals");
        GetParameter(&equals, "Comparison Value")->i = c.comparison;
        GetParameter(&equals, "Current Evaluation")->i = 1 - static_cast<int32_t>(c.answer);
        const std::string source = c.source;
        if (source == "value") {
            AsValueInput(&network->AddDevice("v", "Value"))->Set(c.value, c.code);
            network->Connect("v", 0, "eq", 0);
        } else if (source == "ramp") {
            network->AddDevice("v", "Test Ramp");
            network->Connect("v", 0, "eq", 0);
        }
        network->AddDevice("sw", "Switch");
        network->ConnectParameter("eq", 0, "sw", "Input choice");
        for (uint32_t i : {0u, 1u}) {
            AddSource(*network, i);
            network->Connect(SourceId(i), 0, "sw", i);
        }
        BuildReport report = network->Build({});
        ASSERT_EQ(report.Find("eq")->status, c.status) << report.Find("eq")->message;
        Orogen::PacketRef out = network->Output("eq", 0);
        if (c.status != BuildStatus::Built) {
            EXPECT_FALSE(out);
            continue;
        }
        ASSERT_TRUE(out);
        EXPECT_EQ(out->GetKind(), Orogen::kParameterPacket);
        EXPECT_EQ(Orogen::PacketTypeCode(*out), Orogen::kParamBoolean);
        EXPECT_EQ(Orogen::PacketValue(*out), c.answer);
        EXPECT_EQ(GetParameter(&equals, "Current Evaluation")->i, static_cast<int32_t>(c.answer));
        EXPECT_TRUE(SameBits(SamplesOf(network->Output("sw", 0)),
                             SamplesOf(network->Output(c.answer ? "s1" : "s0", 0))));
    }
}

TEST_F(RoutingTest, ValueStateRoundTripsAndRefusesDamage) {
    auto network = MakeNetwork();
    ValueInput* value = AsValueInput(&network->AddDevice("v", "Value"));
    value->Set(-2.75f, 1);
    const std::string bytes = SavedBytes(*value);
    ASSERT_EQ(bytes.substr(0, 5), std::string("VALU\x01", 5));
    ValueInput* loaded = AsValueInput(&network->AddDevice("w", "Value"));
    ASSERT_TRUE(LoadBytes(*loaded, bytes));
    EXPECT_EQ(loaded->Value(), -2.75f);
    EXPECT_EQ(loaded->TypeCode(), 1u);
    // A type code beyond the largest, or a number that is not finite.
    std::string damaged = bytes;
    damaged[11] = 0x01;  // the type code's third byte: 65537
    const float infinity = std::numeric_limits<float>::infinity();
    std::string endless = bytes;
    std::memcpy(endless.data() + 5, &infinity, 4);
    for (const std::string& bad : {damaged, endless, bytes.substr(0, 7)}) {
        EXPECT_FALSE(LoadBytes(*loaded, bad));
        EXPECT_EQ(loaded->Value(), -2.75f);
        EXPECT_EQ(loaded->TypeCode(), 1u);
    }
}

TEST_F(RoutingTest, BitmapsAndMasksPassThroughChainsUnchangedOnAnyThreadCount) {
    auto network = MakeNetwork(31, 17);
    network->AddDevice("colours", "Test Colors");
    network->AddDevice("split", "Channel Splitter");
    network->AddDevice("sw", "Switch");
    Device& router = network->AddDevice("r", "Router");
    network->AddDevice("c", "Checkpoint");
    network->AddDevice("p", "Route Picker");
    Settle(*network, "r", {{"Number of Outputs", 3}, {"Output Choice", 2}});
    Settle(*network, "p", {{"Input Choice", 1}});
    Settle(*network, "sw", {{"Input choice", 1}});
    network->Connect("colours", 0, "split", 0);
    network->Connect("split", 0, "sw", 0);
    network->Connect("colours", 0, "sw", 1);  // the bitmap: sw, r#2, c#2, p#1
    network->Connect("sw", 0, "r", 0);
    network->Connect("r", 2, "c", 2);
    network->Connect("split", 1, "c", 0);  // a mask: c#0
    network->Connect("c", 2, "p", 1);
    ASSERT_EQ(router.outputs.size(), 3u);

    BuildReport alone = network->Build({});
    for (const DeviceReport& d : alone.devices) EXPECT_EQ(d.status, BuildStatus::Built) << d.id;
    const auto single = AllOutputs(*network);
    const std::vector<float> colours = SamplesOf(network->Output("colours", 0));
    ASSERT_EQ(colours.size(), 31u * 17u * 3u);
    Orogen::PacketRef picked = network->Output("p", 0);
    ASSERT_TRUE(picked);
    EXPECT_EQ(picked->GetKind(), Orogen::kBitmap);
    EXPECT_TRUE(SameBits(SamplesOf(picked), colours));
    Orogen::PacketRef mask = network->Output("c", 0);
    ASSERT_TRUE(mask);
    EXPECT_EQ(mask->maskFlag, 1);
    EXPECT_TRUE(SameBits(SamplesOf(mask), SamplesOf(network->Output("split", 1))));
    EXPECT_FALSE(network->Output("r", 0));
    EXPECT_FALSE(network->Output("c", 1));

    BuildOptions options;
    options.workers = 3;
    network->Build(options);
    // Empty outputs stay empty.
    const auto threaded = AllOutputs(*network);
    ASSERT_EQ(threaded.size(), single.size());
    for (const auto& [key, samples] : single)
        EXPECT_TRUE(SameBits(threaded.at(key), samples)) << key;
}

TEST_F(RoutingTest, NetworkFilesLinkAndExportThePortsTheirSettingsMake) {
    const std::string text = R"({
      "world": {"resolution": [9, 7]},
      "devices": [
        {"id": "v", "type": "Value", "value": 3},
        {"id": "ramp", "type": "Test Ramp", "params": {"Offset": 0.2}},
        {"id": "r", "type": "Router", "params": {"Output Choice": 3, "Number of Outputs": 4}},
        {"id": "p", "type": "Route Picker", "params": {"Input Choice": 3, "Number of Inputs": 4}},
        {"id": "eq", "type": "Integer Equals", "params": {"Comparison Value": 3}},
        {"id": "c", "type": "Checkpoint", "params": {"Number of Ports": 5}}
      ],
      "links": [
        {"from": "ramp", "to": "r"},
        {"from": "r", "output": 3, "to": "p", "input": 3},
        {"from": "v", "to": "eq"},
        {"from": "p", "to": "c", "input": 4}
      ],
      "export": [{"device": "c", "output": 4, "name": "out"}, {"device": "r", "output": 3}]
    })";
    Project first = ParseNetwork(*host, text, "");
    const std::string saved = NetworkToText(first, "");
    Project again = ParseNetwork(*host, saved, "");
    for (Project* project : {&first, &again}) {
        Network& network = *project->network;
        EXPECT_EQ(network.Get("r").outputs.size(), 4u);
        EXPECT_EQ(network.Get("p").inputs.size(), 4u);
        EXPECT_EQ(network.Get("c").outputs.size(), 5u);
        EXPECT_EQ(network.Links().size(), 4u);
        ASSERT_EQ(project->exports.size(), 2u);
        EXPECT_EQ(project->exports[1].name, "r_3");
        BuildReport report = network.Build({});
        for (const DeviceReport& d : report.devices)
            EXPECT_EQ(d.status, BuildStatus::Built) << d.id;
        EXPECT_TRUE(
            SameBits(SamplesOf(network.Output("c", 4)), SamplesOf(network.Output("ramp", 0))));
        EXPECT_EQ(GetParameter(&network.Get("eq"), "Current Evaluation")->i, 1);
        EXPECT_EQ(AsValueInput(&network.Get("v"))->TypeCode(), 0u);
    }

    const struct {
        const char* device;  // one more device entry
        const char* link;    // or one more link (to a 4-input "p")
        const char* place;
        const char* message;
    } errors[] = {
        {R"({"id": "x", "type": "Switch", "value": 1})", nullptr, "devices[1].value",
         "only a \"Value\" device takes one"},
        {R"({"id": "x", "type": "Value"})", nullptr, "devices[1]", "a \"Value\" needs \"value\""},
        {R"({"id": "x", "type": "Value", "value": 1, "typeCode": -1})", nullptr,
         "devices[1].typeCode", "-1 is outside 0..65535"},
        {R"({"id": "x", "type": "Value", "value": 1, "typeCode": 1.5})", nullptr,
         "devices[1].typeCode", "expected an integer"},
        {R"({"id": "x", "type": "Router", "params": {"Number of Outputs": 3, "Output Choice": 3}})",
         nullptr, "devices[1].params.Output Choice", "3 is outside 0..2"},
        {nullptr, R"({"from": "v", "to": "p", "input": 4})", "links[0].input",
         "\"p\" has no input 4 (it has 4)"},
    };
    for (const auto& e : errors) {
        SCOPED_TRACE(e.place);
        std::string file = R"({"devices": [{"id": "p", "type": "Route Picker", )";
        file.append(R"("params": {"Number of Inputs": 4}})");
        if (e.device) file.append(", ").append(e.device);
        file.append(R"(, {"id": "v", "type": "Value", "value": 0}])");
        if (e.link) file.append(R"(, "links": [)").append(e.link).append("]");
        file.append("}");
        try {
            ParseNetwork(*host, file, "");
            ADD_FAILURE() << "no error";
        } catch (const NetworkFileError& error) {
            EXPECT_EQ(error.Place(), e.place);
            EXPECT_NE(error.Message().find(e.message), std::string::npos) << error.Message();
        }
    }
}

}  // namespace
}  // namespace basekit::host::testing
