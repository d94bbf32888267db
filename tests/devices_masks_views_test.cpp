// Height Chooser, Select Color, Splat Converter and Overlay View in networks
// of the reference host: outputs on one thread and on several against the
// kernels and exact flat cases, missing inputs, saved state, and the Overlay
// View's view as the host writes and exports it.

#include "devices/combiners/HeightCombiner.h"
#include "devices/converters/SplatMaker.h"
#include "devices/output/OverlayOutput.h"
#include "devices/selectors/SelectColor.h"
#include "host/NetworkFile.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using basekit::testing::LoadBytes;
using basekit::testing::SavedBytes;
using Orogen::Device;
using Orogen::GetParameter;

class MasksViewsTest : public HostTest {
  protected:
    void SetUp() override {
        HostTest::SetUp();
        host->RegisterHostType(&Orogen::CreateDevice<TestColors>, 1, 8);
        host->Workers().Resize(3);
        network = MakeNetwork(29, 21);
        network->world.verticalScale = 0.3;
        network->globals.lightDirection[0] = 1.0f;
        network->globals.lightDirection[1] = -0.5f;
        network->globals.lightDirection[2] = 2.0f;
        network->AddDevice("ramp", "Test Ramp");
        GetParameter(&network->Get("ramp"), "Waves")->i = 1;
        network->AddDevice("colours", "Test Colors");
        Constant("quarter", 0.25f);
        Constant("half", 0.5f);
    }
    void TearDown() override {
        host->Network().SetViewWriter(nullptr);
        network.reset();
        HostTest::TearDown();
    }

    void Constant(const std::string& id, float height) {
        network->AddDevice(id, "Constant");
        GetParameter(&network->Get(id), "Height")->f = height;
    }
    Device& Add(const std::string& id, const std::string& type,
                const std::vector<std::string>& inputs) {
        Device& device = network->AddDevice(id, type);
        for (uint32_t k = 0; k < inputs.size(); ++k) network->Connect(inputs[k], 0, id, k);
        return device;
    }
    // Builds alone, then with three workers: every output the same bits.
    void BuildBothWays() {
        BuildReport alone = network->Build({});
        for (const DeviceReport& d : alone.devices)
            EXPECT_EQ(d.status, BuildStatus::Built) << d.id << ": " << d.message;
        const auto single = AllOutputs(*network);
        BuildOptions options;
        options.workers = 3;
        network->Build(options);
        ExpectSameOutputs(single, AllOutputs(*network));
    }
    std::vector<float> Of(const std::string& id, uint32_t output = 0) {
        return SamplesOf(network->Output(id, output));
    }

    std::unique_ptr<Network> network;
};

TEST_F(MasksViewsTest, AllFourInParallelGiveTheirKernelsAndExactFlatCases) {
    for (const char* keep : {"higher", "lower"}) {
        Device& d = Add(keep, "Height Chooser", {"quarter", "half"});
        GetParameter(&d, "Keep")->i = std::string(keep) == "lower";
    }
    Device& seam = Add("seam", "Height Chooser", {"ramp", "half"});
    GetParameter(&seam, "Transition")->f = 0.2f;
    Constant("grey", 128.0f / 255.0f);
    Add("grey picked", "Select Color", {"grey"});
    Device& picked = Add("picked", "Select Color", {"colours"});
    GetParameter(&picked, "Color")->i = 0x80C040;
    GetParameter(&picked, "Tolerance")->f = 0.15f;
    Add("splat", "Splat Converter", {"ramp"});
    Device& view = Add("view", "Overlay View", {"ramp", "colours"});
    GetParameter(&view, "Overlay Opacity")->f = 0.7f;
    BuildBothWays();

    const size_t n = 29 * 21;
    EXPECT_EQ(Of("higher"), std::vector<float>(n, 0.5f));
    EXPECT_EQ(Of("higher", 1), std::vector<float>(n, 1.0f));
    EXPECT_EQ(Of("lower"), std::vector<float>(n, 0.25f));
    EXPECT_EQ(Of("lower", 1), std::vector<float>(n, 0.0f));
    EXPECT_EQ(Of("grey picked"), std::vector<float>(n, 1.0f));
    for (const auto& [id, output] :
         {std::pair{"higher", 1u}, std::pair{"grey picked", 0u}, std::pair{"picked", 0u}})
        EXPECT_EQ(network->Output(id, output)->maskFlag, 1) << id;
    EXPECT_EQ(network->Output("higher", 0)->maskFlag, 0);

    const std::vector<float> ramp = Of("ramp"), colours = Of("colours");
    std::vector<float> a = ramp, half(n, 0.5f), w(n);
    ChooseHeights(a.data(), half.data(), w.data(), 0, n, kKeepHigher, 0.2f);
    EXPECT_TRUE(SameBits(Of("seam"), a));
    EXPECT_TRUE(SameBits(Of("seam", 1), w));

    std::vector<float> mask(n);
    float colour[3] = {128.0f / 255.0f, 192.0f / 255.0f, 64.0f / 255.0f};
    SelectColourMask(colours.data(), 3, 0, n, colour, 0.15f, 0.1f, mask.data());
    EXPECT_TRUE(SameBits(Of("picked"), mask));

    const Orogen::Grid grid = network->Output("ramp", 0)->grid;
    std::vector<float> splat(3 * n);
    SplatRows({ramp.data(), grid, 35, 0.7f, 0.05f}, 0, 20, splat.data());
    EXPECT_TRUE(SameBits(Of("splat"), splat));
    EXPECT_EQ(network->Output("splat", 0)->GetKind(), Orogen::kBitmap);

    OverlaySetup setup{ramp.data(), grid, colours.data(), 3, {}, 0.7f, 0.5f};
    OverlayLight(network->globals.lightDirection, setup.light);
    std::vector<float> expected(3 * n);
    OverlayRows(setup, 0, 20, expected.data());
    EXPECT_TRUE(SameBits(Of("view"), expected));
    EXPECT_EQ(network->Output("view", 0)->GetKind(), Orogen::kBitmap);
    EXPECT_EQ(network->GlobalUsers(Orogen::kGlobalLightDirection),
              std::vector<std::string>{"view"});
}

TEST_F(MasksViewsTest, MissingInputsFailAndStoreNothing) {
    const struct {
        const char* type;
        std::vector<std::string> inputs;  // "" leaves an input free
        BuildStatus status;
    } cases[] = {
        {"Height Chooser", {}, BuildStatus::Failed},
        {"Height Chooser", {"ramp"}, BuildStatus::Failed},
        {"Height Chooser", {"", "ramp"}, BuildStatus::Failed},
        {"Select Color", {}, BuildStatus::Failed},
        {"Splat Converter", {}, BuildStatus::Failed},
        {"Overlay View", {}, BuildStatus::Failed},
        {"Overlay View", {"", "colours"}, BuildStatus::Failed},
        {"Overlay View", {"ramp"}, BuildStatus::Built},  // the overlay is optional
    };
    int n = 0;
    for (const auto& c : cases) {
        std::string id = "d";  // appended: GCC 12 warns falsely on "d" + to_string
        id += std::to_string(n++);
        network->AddDevice(id, c.type);
        for (uint32_t k = 0; k < c.inputs.size(); ++k)
            if (!c.inputs[k].empty()) network->Connect(c.inputs[k], 0, id, k);
        const BuildReport report = network->Build({});
        EXPECT_EQ(report.Find(id)->status, c.status) << id << " " << c.type;
        EXPECT_EQ(static_cast<bool>(network->Output(id, 0)), c.status == BuildStatus::Built) << id;
    }
}

TEST_F(MasksViewsTest, StateRoundTripsAndAWrongTagFails) {
    const struct {
        const char* type;
        const char* tag;
        const char* param;
        float value;  // reals; integers and choices take it truncated
    } cases[] = {{"Height Chooser", "HCMB", "Transition", 0.375f},
                 {"Select Color", "SELU", "Falloff", 0.625f},
                 {"Splat Converter", "NORM", "High Level", 0.125f},
                 {"Overlay View", "OLVW", "Shading", 0.875f}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        Device& a = network->AddDevice(std::string("a ") + c.tag, c.type);
        Device& b = network->AddDevice(std::string("b ") + c.tag, c.type);
        GetParameter(&a, c.param)->f = c.value;
        a.SetName("renamed");
        const std::string bytes = SavedBytes(a);
        ASSERT_EQ(bytes.substr(0, 5), std::string(c.tag) + '\x01');
        ASSERT_TRUE(LoadBytes(b, bytes));
        EXPECT_EQ(GetParameter(&b, c.param)->f, c.value);
        EXPECT_STREQ(b.GetName(), "renamed");
        // The seed is drawn again on every load; the parameter block is the same.
        const std::string again = SavedBytes(b);
        EXPECT_EQ(again.substr(again.find("PAR2")), bytes.substr(bytes.find("PAR2")));
        std::string wrong = bytes;
        wrong[0] = 'X';
        EXPECT_FALSE(LoadBytes(b, wrong));
    }
}

TEST_F(MasksViewsTest, TheViewGoesToTheHostAfterEachBuildAndOnTheExportAction) {
    Device& view = Add("view", "Overlay View", {"ramp", "half"});
    view.SetName("Shown");
    auto* output = static_cast<Orogen::Output*>(&view);
    EXPECT_STREQ(output->GetExportLabel(), "Write Output to Disk");
    // Before a build there is nothing to write; without a writer the host writes nothing.
    EXPECT_FALSE(output->ExportAction());
    ASSERT_EQ(network->Build({}).Find("view")->status, BuildStatus::Built);
    EXPECT_FALSE(output->ExportAction());

    std::vector<std::pair<Device*, std::string>> written;
    std::vector<std::vector<float>> views;
    host->Network().SetViewWriter([&](Device* device, const Orogen::PacketRef& packet) {
        written.emplace_back(device, packet->name);
        views.push_back(SamplesOf(packet));
        return true;
    });
    BuildOptions options;
    options.workers = 3;
    ASSERT_EQ(network->Build(options).Find("view")->status, BuildStatus::Built);
    ASSERT_EQ(written.size(), 1u);
    EXPECT_EQ(written[0].first, &view);
    EXPECT_EQ(views[0], Of("view"));
    // The action composes the last build's inputs again: the same view, under its own name.
    EXPECT_TRUE(output->ExportAction());
    ASSERT_EQ(written.size(), 2u);
    EXPECT_EQ(written[1].second, "Shown OutputView");
    EXPECT_TRUE(SameBits(views[1], views[0]));
    // The action is also the parameter's callback, as the host's dialog runs it.
    const auto* record = &view.params.records[static_cast<size_t>(
        Orogen::FindParameter(view.params, "Write Output to Disk"))];
    ASSERT_EQ(record->kind, Orogen::kParamAction);
    EXPECT_TRUE(reinterpret_cast<bool (*)(Device*)>(record->value.p)(&view));
    EXPECT_EQ(written.size(), 3u);
}

TEST_F(MasksViewsTest, EveryViewIsExportedEvenWhereItFeedsAnotherDevice) {
    const std::string devices = R"("devices": [
        {"id": "hill", "type": "Radial Grad"},
        {"id": "view", "type": "Overlay View"},
        {"id": "split", "type": "Channel Splitter"},
        {"id": "second", "type": "Overlay View"}],
      "links": [{"from": "hill", "to": "view"}, {"from": "view", "to": "split"},
                {"from": "hill", "to": "second"}])";
    const struct {
        std::string exports;
        std::vector<std::string> names;
    } cases[] = {
        {"", {"view", "split_0", "split_1", "split_2", "second"}},
        {R"(, "export": [{"device": "hill"}])", {"hill", "view", "second"}},
        {R"(, "export": [{"device": "second", "name": "shown"}, {"device": "hill", "name": "view"}])",
         {"shown", "view", "view_view"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.exports);
        Project project = ParseNetwork(*host, "{" + devices + c.exports + "}", "");
        std::vector<std::string> names;
        for (const ExportEntry& e : project.exports) names.push_back(e.name);
        EXPECT_EQ(names, c.names);
    }
}

}  // namespace
}  // namespace basekit::host::testing
