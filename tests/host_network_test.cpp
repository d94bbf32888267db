// Networks: links, dependency order, build statuses, cancellation, threads,
// memory budgets and the world's mapping onto the build grid.
#include <map>

#include "TestHost.h"
#include "framework/Exceptions.h"
#include "host/FileInput.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using NetworkTest = HostTest;

std::string ErrorOf(const std::function<void()>& action) {
    return basekit::testing::ThrownMessage<NetworkError>(action);
}

TEST_F(NetworkTest, SamplesMapOntoTheWorldByTheContextsSteps) {
    // The ramp is 0.5 u + 0.5 v with u = x * sx and v = y * sy; steps are
    // 1/(W-1) and 1/(H-1), 0 along a side of one sample.
    struct Case {
        int32_t width, height;
        float last;
        int32_t x, y;
        float value;
    };
    const Case cases[] = {{17, 13, 1.0f, 8, 6, 0.5f},
                          {2, 5, 1.0f, 1, 2, 0.75f},
                          {1, 9, 0.5f, 0, 4, 0.25f},
                          {1, 1, 0.0f, 0, 0, 0.0f}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        auto network = MakeNetwork(c.width, c.height);
        network->AddDevice("ramp", "Test Ramp");
        ASSERT_EQ(network->Build().Count(BuildStatus::Built), 1u);
        std::vector<float> s = SamplesOf(network->Output("ramp", 0));
        ASSERT_EQ(s.size(), static_cast<size_t>(c.width * c.height));
        EXPECT_EQ(s.front(), 0.0f);
        EXPECT_EQ(s.back(), c.last);
        EXPECT_EQ(s[static_cast<size_t>(c.y * c.width + c.x)], c.value);
    }
}

TEST_F(NetworkTest, BuildOrderFollowsTheLinks) {
    struct Case {
        const char* name;
        std::vector<std::string> devices;  // in the order added
        std::vector<std::pair<std::string, std::string>> links;
        std::vector<std::string> order;
    };
    const Case cases[] = {
        {"unlinked keep their order", {"c", "b", "a"}, {}, {"c", "b", "a"}},
        {"chain added backwards", {"c", "b", "a"}, {{"a", "b"}, {"b", "c"}}, {"a", "b", "c"}},
        {"fan-out", {"x", "y", "src"}, {{"src", "x"}, {"src", "y"}}, {"src", "x", "y"}},
        {"diamond",
         {"d", "b", "c", "a"},
         {{"a", "b"}, {"a", "c"}, {"b", "d"}, {"c", "d"}},
         {"a", "b", "c", "d"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto network = MakeNetwork();
        for (const std::string& id : c.devices)
            network->AddDevice(id, id == "a" || id == "src" ? "Test Ramp" : "Test Add");
        // Test Add has one input: a second link into "d" goes through a parameter.
        std::map<std::string, int> fed;
        for (const auto& [from, to] : c.links) {
            if (fed[to]++ == 0)
                network->Connect(from, 0, to, 0);
            else
                network->ConnectParameter(from, 0, to, "Amount");
        }
        EXPECT_EQ(network->BuildOrder(), c.order);
        BuildReport report = network->Build();
        std::vector<std::string> built;
        for (const DeviceReport& r : report.devices) built.push_back(r.id);
        EXPECT_EQ(built, c.order);
    }
}

TEST_F(NetworkTest, MisuseGivesClearErrors) {
    auto network = MakeNetwork();
    network->AddDevice("ramp", "Test Ramp");
    for (const char* id : {"add", "a", "b", "c"}) network->AddDevice(id, "Test Add");
    network->Connect("a", 0, "b", 0);
    network->Connect("b", 0, "c", 0);
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { network->Connect("c", 0, "a", 0); },
         "linking \"c\" to \"a\" would make a cycle between devices: \"a\" -> \"b\" -> "
         "\"c\" -> \"a\""},
        {[&] { network->ConnectParameter("b", 0, "b", "Amount"); },
         "linking \"b\" to \"b\" would make a cycle between devices: \"b\" -> \"b\""},
        {[&] { network->AddDevice("ramp", "Test Add"); }, "duplicate device id \"ramp\""},
        {[&] { network->AddDevice("", "Test Add"); }, "a device needs a non-empty id"},
        {[&] { network->AddDevice("x", "Mountain"); }, "unknown device type \"Mountain\""},
        {[&] { network->Connect("nope", 0, "add", 0); }, "no device \"nope\""},
        {[&] { network->Connect("ramp", 1, "add", 0); }, "\"ramp\" has no output 1 (it has 1)"},
        {[&] { network->Connect("ramp", 0, "add", 2); }, "\"add\" has no input 2 (it has 1)"},
        {[&] { network->ConnectParameter("ramp", 0, "add", "Amout"); },
         "\"add\" has no parameter \"Amout\"; valid: \"Amount\", \"Report rows\", \"Mode\", "
         "\"Tint\""},
        {[&] { network->RemoveDevice("gone"); }, "no device \"gone\""},
    };
    for (const auto& [action, message] : cases) EXPECT_EQ(ErrorOf(action), message);
    EXPECT_EQ(network->Size(), 5u);
    EXPECT_EQ(network->Links().size(), 2u);

    // A cycle made through the ports themselves is named when ordering.
    network->Get("c").outputs[0]->Connect(network->Get("a").inputs[0]);
    const std::string cycle = "cycle between devices: \"a\" -> \"b\" -> \"c\" -> \"a\"";
    EXPECT_EQ(ErrorOf([&] { network->BuildOrder(); }), cycle);
    EXPECT_EQ(ErrorOf([&] { network->Build(); }), cycle);
}

TEST_F(NetworkTest, FailuresStayWithTheirDeviceAndWhatDependsOnIt) {
    TempDir dir;
    using enum BuildStatus;
    const std::string notBuilt = "input 0 (\"Primary Input\") comes from ";
    struct Case {
        const char* id;
        const char* type;
        int32_t failMode;  // Test Fail: how it fails
        const char* from;  // what feeds input 0
        BuildStatus status;
        std::string message;
    };
    const Case cases[] = {
        {"fail", "Test Fail", 0, "", Failed, "the device's build failed"},
        {"after-fail", "Test Add", 0, "fail", InputFailed,
         notBuilt + "\"fail\", which did not build (failed)"},
        {"after-after", "Test Add", 0, "after-fail", InputFailed,
         notBuilt + "\"after-fail\", which did not build (input failed)"},
        {"throws-qx", "Test Fail", 1, "", Exception, "framework failure"},
        {"throws-std", "Test Fail", 2, "", Exception, "standard failure"},
        {"no-memory", "Test Fail", 3, "", Exception,
         "out of memory while it built, with 0 bytes of fields held; lower the resolution or give "
         "the build a memory budget (orogen --memory) to page stored fields to disk"},
        {"ramp", "Test Ramp", 0, "", Built, ""},
        {"after-ramp", "Test Add", 0, "ramp", Built, ""},
        {"file", "File Input", 0, "", Failed,
         "cannot read r32 file '" + (dir / "missing.r32").string() + "': "},
        {"after-file", "Test Add", 0, "file", InputFailed,
         notBuilt + "\"file\", which did not build (failed)"},
        {"off", "Test Ramp", 0, "", Disabled, "the device is disabled"},
        {"after-off", "Test Add", 0, "off", InputFailed,
         notBuilt + "\"off\", which did not build (disabled)"},
        {"lonely", "Test Add", 0, "", Failed, "input 0 (\"Primary Input\") is not connected"},
        {"param-from-fail", "Test Add", 0, "ramp2", InputFailed,
         "parameter \"Amount\" comes from \"throws-qx\", which did not build (exception)"},
        {"ramp2", "Test Ramp", 0, "", Built, ""},
    };
    auto network = MakeNetwork(8, 8);
    for (const Case& c : cases) {
        Orogen::Device& device = network->AddDevice(c.id, c.type);
        if (c.failMode) device.params.records[0].value.i = c.failMode;
    }
    static_cast<FileInput&>(network->Get("file")).SetFile(dir / "missing.r32");
    network->Get("off").enabled = 0;
    for (const Case& c : cases)
        if (*c.from) network->Connect(c.from, 0, c.id, 0);
    network->ConnectParameter("throws-qx", 0, "param-from-fail", "Amount");

    BuildReport report = network->Build();
    ASSERT_EQ(report.devices.size(), std::size(cases));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.id);
        const DeviceReport* r = report.Find(c.id);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->status, c.status);
        if (std::string(c.id) == "file")  // the system's reason follows
            EXPECT_EQ(r->message.rfind(c.message, 0), 0u) << r->message;
        else
            EXPECT_EQ(r->message, c.message);
        // Only what built has an output.
        EXPECT_EQ(static_cast<bool>(network->Output(c.id, 0)), c.status == Built);
    }
    EXPECT_FALSE(report.cancelled);
}

TEST_F(NetworkTest, APacketTooLargeForTheHostFailsOnlyItsDevice) {
    // The host's refusal is thrown inside the module and caught by its Process.
    auto network = MakeNetwork(70000, 70000);
    network->AddDevice("huge", "Constant");
    uint64_t live = HostPacket::Live();
    BuildReport report = network->Build();
    EXPECT_EQ(report.devices[0].status, BuildStatus::Exception);
    EXPECT_EQ(report.devices[0].processResult, Orogen::kProcessException);
    EXPECT_EQ(HostPacket::Live(), live);
}

TEST_F(NetworkTest, CancellingStopsTheBuild) {
    for (bool fromProgress : {true, false}) {
        SCOPED_TRACE(fromProgress ? "progress answer" : "Cancel()");
        auto network = MakeNetwork(8, 8);
        network->AddDevice("ramp", "Test Ramp");
        network->AddDevice("rows", "Test Add").params.records[1].value.i = 1;
        network->AddDevice("last", "Test Add");
        network->Connect("ramp", 0, "rows", 0);
        network->Connect("rows", 0, "last", 0);
        BuildOptions options;
        std::vector<std::string> rowsSeen;
        options.onProgress = [&](const std::string& id, uint32_t done, uint32_t) {
            if (id == "rows") rowsSeen.push_back(std::to_string(done));
            return !(fromProgress && id == "rows" && done == 3);
        };
        options.onDeviceDone = [&](const DeviceReport& r) {
            if (!fromProgress && r.id == "ramp") network->Cancel();
        };
        const Orogen::BuildResultSet* before = network->Results();
        BuildReport report = network->Build(options);
        EXPECT_NE(network->Results(), before);
        EXPECT_TRUE(report.cancelled);
        EXPECT_EQ(report.Find("ramp")->status, BuildStatus::Built);
        EXPECT_EQ(report.Find("rows")->status, BuildStatus::Cancelled);
        EXPECT_EQ(report.Find("last")->status, BuildStatus::Cancelled);
        EXPECT_EQ(report.Find("last")->processResult, 0);  // never run
        EXPECT_EQ(rowsSeen, (fromProgress ? std::vector<std::string>{"1", "2", "3"}
                                          : std::vector<std::string>{}));
        // The next build starts afresh; the callbacks follow it.
        std::vector<std::string> calls;
        options.onDeviceStart = [&](const std::string& id, size_t position, size_t count) {
            calls.push_back("start " + id + " " + std::to_string(position) + "/" +
                            std::to_string(count));
        };
        options.onDeviceDone = [&](const DeviceReport& r) {
            calls.push_back(std::string("done ") + r.id + " " + StatusName(r.status));
        };
        uint32_t items = 0, total = 0;
        options.onProgress = [&](const std::string& id, uint32_t, uint32_t all) {
            if (id == "ramp") ++items, total = all;
            return true;
        };
        EXPECT_EQ(network->Build(options).Count(BuildStatus::Built), 3u);
        EXPECT_EQ(calls, (std::vector<std::string>{"start ramp 0/3", "done ramp built",
                                                   "start rows 1/3", "done rows built",
                                                   "start last 2/3", "done last built"}));
        // The ramp's rows came in items, each reported once.
        EXPECT_GT(items, 0u);
        EXPECT_EQ(items, total);
    }
}

// A ramp, a chain of `adds` Test Adds and "late", the ramp's second reader.
std::unique_ptr<Network> Chain(Host& host, int adds, int waves) {
    auto network = std::make_unique<Network>(host);
    network->world.width = network->world.height = 64;  // 16 KiB per height field
    network->AddDevice("ramp", "Test Ramp").params.records[1].value.i = waves;
    std::string previous = "ramp";
    for (int i = 0; i < adds; ++i) {
        const std::string id = "add" + std::to_string(i);
        network->AddDevice(id, "Test Add");
        network->Connect(previous, 0, id, 0);
        previous = id;
    }
    network->AddDevice("late", "Test Add");
    network->Connect("ramp", 0, "late", 0);
    return network;
}

// A network that uses every threaded path the tests and the module offer.
TEST_F(NetworkTest, WorkersChangeNothingInTheResults) {
    auto network = MakeNetwork(97, 61);
    network->AddDevice("ramp", "Test Ramp").params.records[1].value.i = 1;
    network->AddDevice("add", "Test Add");
    network->AddDevice("add2", "Test Add");
    network->Connect("ramp", 0, "add", 0);
    network->Connect("add", 0, "add2", 0);
    // Module devices where the module has them.
    std::string previous = "add2";
    for (const char* type : {"Radial Grad", "Gradient", "Voronoi", "Blur"}) {
        if (!host->FindType(type)) continue;
        Orogen::Device& device = network->AddDevice(type, type);
        // Voronoi seeds itself from the clock: pin it so that every build matches.
        if (Orogen::FindParameter(device.params, "Random Seed") >= 0)
            Orogen::GetParameter(&device, "Random Seed")->i = 1234;
        if (!device.inputs.empty()) network->Connect(previous, 0, type, 0);
        previous = type;
    }
    std::map<std::string, std::vector<float>> alone;
    for (uint32_t workers : {0u, 1u, 2u, 7u}) {
        SCOPED_TRACE(workers);
        BuildOptions options;
        options.workers = workers;
        ASSERT_EQ(network->Build(options).Count(BuildStatus::Built), network->Size());
        EXPECT_EQ(host->Workers().Accepted() > 0, workers > 0);
        if (workers == 0) alone = AllOutputs(*network);
        ExpectSameOutputs(alone, AllOutputs(*network));
    }
}

// A budget pages stored outputs out. Streamed, each output is seen once, when
// its device is done, and one read by one device only is handed to it, not
// copied. Neither changes a result, and nothing stays behind.
TEST_F(NetworkTest, BudgetsAndStreamingChangeNoResult) {
    auto make = [&] { return Chain(*host, 6, 1); };
    auto plain = make();
    ASSERT_EQ(plain->Build().Count(BuildStatus::Built), 8u);
    auto expected = AllOutputs(*plain);
    const uint64_t before = HostPacket::ResidentBytes();

    auto budgeted = make();
    BuildOptions options;
    options.memoryBudget = 40000;  // two fields and a half
    // Between devices no more than the budget of stored outputs is resident.
    uint64_t peak = 0;
    options.onDeviceStart = [&](const std::string&, size_t, size_t) {
        peak = std::max(peak, HostPacket::ResidentBytes() - before);
    };
    ASSERT_EQ(budgeted->Build(options).Count(BuildStatus::Built), 8u);
    // Stored outputs stay within the budget once the build is done.
    uint64_t resident = 0;
    size_t pagedOut = 0;
    for (const auto& [device, result] : budgeted->Results()->results)
        for (const auto& packet : result.outputs) {
            if (!packet) continue;
            if (packet->pagedOut)
                ++pagedOut;
            else
                resident += AsHostPacket(packet.get())->SampleBytes();
        }
    EXPECT_LE(resident, options.memoryBudget);
    EXPECT_LE(peak, options.memoryBudget);
    EXPECT_GE(pagedOut, 5u);
    EXPECT_EQ(fs::is_empty(host->SwapDirectory()), false);
    ExpectSameOutputs(expected, AllOutputs(*budgeted));
    budgeted.reset();
    EXPECT_TRUE(fs::is_empty(host->SwapDirectory()));

    for (uint64_t budget : {uint64_t{0}, uint64_t{20000}}) {
        SCOPED_TRACE(budget);
        auto streamed = make();
        BuildOptions options;
        options.releaseOutputs = true;
        options.memoryBudget = budget;
        options.workers = 2;
        std::map<std::string, std::vector<float>> seen;
        std::map<std::string, const Orogen::QXPacket*> packets;
        Orogen::PacketRef held;  // held by the caller: copied to its reader
        options.onDeviceDone = [&](const DeviceReport& done) {
            Orogen::PacketRef packet = streamed->Output(done.id, 0);
            seen[done.id + "#0"] = SamplesOf(packet);
            packets[done.id] = packet.get();
            if (done.id == "add2") held = packet;
        };
        ASSERT_EQ(streamed->Build(options).Count(BuildStatus::Built), 8u);
        ExpectSameOutputs(expected, seen);
        // add0 copies the ramp (two readers); add1 works in add0's packet;
        // add3 copies add2, which the caller held.
        EXPECT_NE(packets["add0"], packets["ramp"]);
        EXPECT_EQ(packets["add1"], packets["add0"]);
        EXPECT_EQ(packets["add2"], packets["add1"]);
        EXPECT_NE(packets["add3"], packets["add2"]);
        EXPECT_TRUE(SameBits(SamplesOf(held), expected["add2#0"]));
        held.Release();
        for (const std::string& id : streamed->Ids()) EXPECT_FALSE(streamed->Output(id, 0)) << id;
        EXPECT_EQ(HostPacket::ResidentBytes(), before);
    }
}

TEST_F(NetworkTest, AStoredOutputThatCannotComeBackFailsItsReader) {
    auto network = Chain(*host, 4, 0);
    BuildOptions options;
    options.memoryBudget = 20000;
    // Damage every swap file just before the last reader of the ramp runs.
    options.onDeviceStart = [&](const std::string& id, size_t, size_t) {
        if (id != "late") return;
        for (const auto& entry : fs::directory_iterator(host->SwapDirectory()))
            WriteBytes(entry.path(), "damaged");
    };
    BuildReport report = network->Build(options);
    EXPECT_EQ(report.Count(BuildStatus::Built), 5u);
    const DeviceReport* late = report.Find("late");
    EXPECT_EQ(late->status, BuildStatus::Exception);
    EXPECT_EQ(late->message, "The filename specified could not be accessed.");
    EXPECT_THROW(network->Output("ramp", 0), Orogen::FileAccessException);
    EXPECT_FALSE(network->Output("late", 0));
}

// A module device builds over the world; a field on a parameter counts by its
// mean; a fanned-out output gives each reader its own copy and stays as it was.
TEST_F(NetworkTest, ModuleDevicesParameterLinksAndFanOut) {
    auto network = MakeNetwork();
    network->world = World{-2.0, 1.0, 6.0, 3.5, 9, 7, 250.0};
    Orogen::Device& base = network->AddDevice("base", "Constant");
    base.SetName("Flat");
    Orogen::GetParameter(&base, "Height")->f = 0.25f;
    Orogen::GetParameter(&network->AddDevice("driver", "Constant"), "Height")->f = 0.75f;
    network->AddDevice("add", "Test Add");
    network->AddDevice("down", "Test Add").params.records[0].value.f = -0.25f;
    network->Connect("base", 0, "add", 0);
    network->ConnectParameter("driver", 0, "add", "Amount");
    network->Connect("base", 0, "down", 0);
    EXPECT_EQ(base.outputs[0]->links.size(), 2u);
    BuildReport report = network->Build();
    ASSERT_EQ(report.Count(BuildStatus::Built), 4u);
    EXPECT_EQ(report.Find("base")->processResult, 1);
    EXPECT_GE(report.Find("base")->seconds, 0.0);
    // Amount spans -1..1: a value of 0.75 reads as 0.5.
    EXPECT_EQ(SamplesOf(network->Output("add", 0)), std::vector<float>(63, 0.75f));
    EXPECT_EQ(SamplesOf(network->Output("down", 0)), std::vector<float>(63, 0.0f));
    Orogen::PacketRef out = network->Output("base", 0);
    EXPECT_EQ(SamplesOf(out), std::vector<float>(63, 0.25f));
    EXPECT_NE(network->Output("add", 0).get(), out.get());
    EXPECT_FALSE(network->Output("base", 1));
    EXPECT_STREQ(out->name, "Flat: slot 0");
    // The packet carries the world's extent and vertical scale.
    const Orogen::Grid& g = out->grid;
    EXPECT_EQ(std::vector<double>({double(g.width), g.x0, g.y0, g.x1, g.y1, g.verticalScale}),
              std::vector<double>({9, -2.0, 1.0, 6.0, 3.5, 250.0}));
    std::vector<Link> links = network->Links();
    ASSERT_EQ(links.size(), 3u);
    EXPECT_EQ(links[1].target, LinkTarget::Parameter);
    EXPECT_EQ(links[1].parameter, "Amount");
    EXPECT_EQ(links[1].from, "driver");
}

TEST_F(NetworkTest, RemovingADeviceUnlinksIt) {
    auto network = MakeNetwork(4, 4);
    network->AddDevice("a", "Test Ramp");
    network->AddDevice("b", "Test Add");
    network->AddDevice("c", "Test Add");
    network->Connect("a", 0, "b", 0);
    network->Connect("b", 0, "c", 0);
    ASSERT_EQ(network->Build().Count(BuildStatus::Built), 3u);
    network->RemoveDevice("b");
    EXPECT_EQ(network->Ids(), (std::vector<std::string>{"a", "c"}));
    EXPECT_TRUE(network->Links().empty());
    EXPECT_TRUE(network->Get("a").outputs[0]->links.empty());
    BuildReport report = network->Build();
    EXPECT_EQ(report.Find("c")->message, "input 0 (\"Primary Input\") is not connected");
    // The id is free again and found under its new device.
    EXPECT_EQ(network->Find("b"), nullptr);
    Orogen::Device& again = network->AddDevice("b", "Test Ramp");
    EXPECT_EQ(network->Find("b"), &again);
    EXPECT_EQ(network->TypeOf("b").typeName, "Test Ramp");
}

TEST_F(NetworkTest, OwnersHearOfLinksPortsAndEdits) {
    auto network = MakeNetwork();
    network->AddDevice("a", "Test Ramp");
    network->AddDevice("b", "Test Add");
    network->ClearEvents();
    network->Connect("a", 0, "b", 0);
    network->Disconnect("b", 0);
    auto summary = [&](const std::string& id) {
        std::vector<std::string> lines;
        for (const OwnerEvent& e : network->Events(id))
            lines.push_back(e.kind == OwnerEvent::Connection
                                ? "link " + std::to_string(e.where) + "/" +
                                      std::to_string(e.index) + " " + std::to_string(e.state)
                            : e.kind == OwnerEvent::QueryLink ? "query"
                            : e.kind == OwnerEvent::Edited    ? "edited"
                                                              : "ports");
        return lines;
    };
    // The unlink is put to the network through the output's device.
    EXPECT_EQ(summary("a"), (std::vector<std::string>{"link 1/0 1", "link 1/0 0", "query"}));
    EXPECT_EQ(summary("b"), (std::vector<std::string>{"link 0/0 1", "link 0/0 0"}));

    network->ClearEvents();
    Orogen::Device& b = network->Get("b");
    b.AddPort(0, 0, Orogen::kHeightField, 0xFFFFFFFFu);
    b.RemovePort(0, 1);
    b.SettingsChanged();
    EXPECT_EQ(summary("b"), (std::vector<std::string>{"ports", "ports", "edited"}));
}

}  // namespace
}  // namespace basekit::host::testing
