// Networks: links, dependency order, build statuses, cancellation, threads,
// memory budgets and the world's mapping onto the build grid.
#include <map>

#include "framework/Exceptions.h"
#include "host/FileInput.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using NetworkTest = HostTest;

std::string ErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const NetworkError& e) {
        return e.what();
    }
    return "(no error)";
}

TEST_F(NetworkTest, AModuleDeviceBuildsOverTheWorld) {
    auto network = MakeNetwork(17, 13);
    network->world = World{-2.0, 1.0, 6.0, 3.5, 17, 13, 250.0};
    Orogen::Device& constant = network->AddDevice("flat", "Constant");
    constant.SetName("Flat");
    Orogen::GetParameter(&constant, "Height")->f = 0.25f;
    BuildReport report = network->Build();
    ASSERT_EQ(report.devices.size(), 1u);
    EXPECT_EQ(report.devices[0].status, BuildStatus::Built);
    EXPECT_EQ(report.devices[0].processResult, 1);
    EXPECT_GE(report.devices[0].seconds, 0.0);

    Orogen::PacketRef out = network->Output("flat", 0);
    ASSERT_TRUE(out);
    EXPECT_EQ(SamplesOf(out), std::vector<float>(17 * 13, 0.25f));
    EXPECT_STREQ(out->name, "Flat: slot 0");
    // The packet carries the world's extent and vertical scale.
    const Orogen::Grid& g = out->grid;
    EXPECT_EQ(std::vector<double>({double(g.width), g.x0, g.y0, g.x1, g.y1, g.verticalScale}),
              std::vector<double>({17, -2.0, 1.0, 6.0, 3.5, 250.0}));
    EXPECT_FALSE(network->Output("flat", 1));
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
    auto network = MakeNetwork(8, 8);
    auto add = [&](const std::string& id, const char* type) -> Orogen::Device& {
        return network->AddDevice(id, type);
    };
    add("fail", "Test Fail");
    add("after-fail", "Test Add");
    add("after-after", "Test Add");
    add("throws-qx", "Test Fail").params.records[0].value.i = 1;
    add("throws-std", "Test Fail").params.records[0].value.i = 2;
    add("no-memory", "Test Fail").params.records[0].value.i = 3;
    add("ramp", "Test Ramp");
    add("after-ramp", "Test Add");
    add("file", "File Input");
    static_cast<FileInput&>(network->Get("file")).SetFile(dir / "missing.r32");
    add("after-file", "Test Add");
    add("off", "Test Ramp").enabled = 0;
    add("after-off", "Test Add");
    add("lonely", "Test Add");
    add("param-from-fail", "Test Add");
    add("ramp2", "Test Ramp");
    network->Connect("fail", 0, "after-fail", 0);
    network->Connect("after-fail", 0, "after-after", 0);
    network->Connect("ramp", 0, "after-ramp", 0);
    network->Connect("file", 0, "after-file", 0);
    network->Connect("off", 0, "after-off", 0);
    network->Connect("ramp2", 0, "param-from-fail", 0);
    network->ConnectParameter("throws-qx", 0, "param-from-fail", "Amount");

    BuildReport report = network->Build();
    struct Expected {
        const char* id;
        BuildStatus status;
        std::string message;
    };
    const Expected expected[] = {
        {"fail", BuildStatus::Failed, "the device's build failed"},
        {"after-fail", BuildStatus::InputFailed,
         "input 0 (\"Primary Input\") comes from \"fail\", which did not build (failed)"},
        {"after-after", BuildStatus::InputFailed,
         "input 0 (\"Primary Input\") comes from \"after-fail\", which did not build (input "
         "failed)"},
        {"throws-qx", BuildStatus::Exception, "framework failure"},
        {"throws-std", BuildStatus::Exception, "standard failure"},
        {"no-memory", BuildStatus::Exception,
         "out of memory while it built, with 0 bytes of fields held; lower the resolution or give "
         "the build a memory budget (orogen --memory) to page stored fields to disk"},
        {"ramp", BuildStatus::Built, ""},
        {"after-ramp", BuildStatus::Built, ""},
        {"file", BuildStatus::Failed,
         "cannot read r32 file '" + (dir / "missing.r32").string() + "': "},
        {"after-file", BuildStatus::InputFailed,
         "input 0 (\"Primary Input\") comes from \"file\", which did not build (failed)"},
        {"off", BuildStatus::Disabled, "the device is disabled"},
        {"after-off", BuildStatus::InputFailed,
         "input 0 (\"Primary Input\") comes from \"off\", which did not build (disabled)"},
        {"lonely", BuildStatus::Failed, "input 0 (\"Primary Input\") is not connected"},
        {"param-from-fail", BuildStatus::InputFailed,
         "parameter \"Amount\" comes from \"throws-qx\", which did not build (exception)"},
        {"ramp2", BuildStatus::Built, ""},
    };
    ASSERT_EQ(report.devices.size(), std::size(expected));
    for (const Expected& e : expected) {
        SCOPED_TRACE(e.id);
        const DeviceReport* r = report.Find(e.id);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->status, e.status);
        if (e.status == BuildStatus::Failed && std::string(e.id) == "file")
            EXPECT_EQ(r->message.rfind(e.message, 0), 0u) << r->message;
        else
            EXPECT_EQ(r->message, e.message);
        // Only what built has an output.
        EXPECT_EQ(static_cast<bool>(network->Output(e.id, 0)), e.status == BuildStatus::Built);
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
        std::vector<std::string> rowsExpected;
        if (fromProgress) rowsExpected = {"1", "2", "3"};
        EXPECT_EQ(rowsSeen, rowsExpected);
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
std::unique_ptr<Network> ThreadedNetwork(Host& host) {
    auto network = std::make_unique<Network>(host);
    network->world.width = 97;
    network->world.height = 61;
    network->AddDevice("ramp", "Test Ramp").params.records[1].value.i = 1;
    network->AddDevice("add", "Test Add");
    network->AddDevice("add2", "Test Add");
    network->Connect("ramp", 0, "add", 0);
    network->Connect("add", 0, "add2", 0);
    // Module devices where the module has them.
    std::string previous = "add2";
    for (const char* type : {"Radial Grad", "Gradient", "Voronoi", "Blur"}) {
        if (!host.FindType(type)) continue;
        std::string id = type;
        Orogen::Device& device = network->AddDevice(id, type);
        // Voronoi seeds itself from the clock: pin it so both networks match.
        if (Orogen::FindParameter(device.params, "Random Seed") >= 0)
            Orogen::GetParameter(&device, "Random Seed")->i = 1234;
        if (!device.inputs.empty()) network->Connect(previous, 0, id, 0);
        previous = id;
    }
    return network;
}

TEST_F(NetworkTest, WorkersChangeNothingInTheResults) {
    host->Seeds().SetStart(5);
    auto single = ThreadedNetwork(*host);
    host->Seeds().SetStart(5);
    auto threaded = ThreadedNetwork(*host);
    BuildOptions one;
    BuildReport a = single->Build(one);
    EXPECT_EQ(host->Workers().Accepted(), 0u);
    BuildOptions four;
    four.workers = 4;
    BuildReport b = threaded->Build(four);
    EXPECT_GT(host->Workers().Accepted(), 0u);
    ASSERT_EQ(a.Count(BuildStatus::Built), single->Size());
    ASSERT_EQ(b.Count(BuildStatus::Built), threaded->Size());
    ExpectSameOutputs(AllOutputs(*single), AllOutputs(*threaded));
}

TEST_F(NetworkTest, AMemoryBudgetPagesOutputsOutAndChangesNoResult) {
    auto make = [&] { return Chain(*host, 6, 1); };
    auto plain = make();
    ASSERT_EQ(plain->Build().Count(BuildStatus::Built), 8u);
    auto expected = AllOutputs(*plain);

    auto budgeted = make();
    BuildOptions options;
    options.memoryBudget = 40000;  // two fields and a half
    // Between devices no more than the budget of stored outputs is resident.
    uint64_t baseline = HostPacket::ResidentBytes();
    uint64_t peak = 0;
    options.onDeviceStart = [&](const std::string&, size_t, size_t) {
        peak = std::max(peak, HostPacket::ResidentBytes() - baseline);
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
    // Everything comes back as it was built without a budget.
    ExpectSameOutputs(expected, AllOutputs(*budgeted));
    budgeted.reset();
    EXPECT_TRUE(fs::is_empty(host->SwapDirectory()));
}

// Streamed: each output is seen once, when its device is done; an output read
// by one device only is handed to it, not copied; nothing stays behind.
TEST_F(NetworkTest, StreamedBuildsOnWorkersHandOverLastReads) {
    auto make = [&] { return Chain(*host, 4, 1); };
    auto plain = make();
    ASSERT_EQ(plain->Build().Count(BuildStatus::Built), 6u);
    auto expected = AllOutputs(*plain);
    const uint64_t before = HostPacket::ResidentBytes();

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
        ASSERT_EQ(streamed->Build(options).Count(BuildStatus::Built), 6u);
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

// A field on a parameter counts by its mean; a fanned-out output gives each
// reader its own copy and stays as it was.
TEST_F(NetworkTest, ParameterLinksAndFanOut) {
    auto network = MakeNetwork(9, 9);
    Orogen::GetParameter(&network->AddDevice("base", "Constant"), "Height")->f = 0.25f;
    Orogen::GetParameter(&network->AddDevice("driver", "Constant"), "Height")->f = 0.75f;
    network->AddDevice("add", "Test Add");
    network->AddDevice("down", "Test Add").params.records[0].value.f = -0.25f;
    network->Connect("base", 0, "add", 0);
    network->ConnectParameter("driver", 0, "add", "Amount");
    network->Connect("base", 0, "down", 0);
    EXPECT_EQ(network->Get("base").outputs[0]->links.size(), 2u);
    ASSERT_EQ(network->Build().Count(BuildStatus::Built), 4u);
    // Amount spans -1..1: a value of 0.75 reads as 0.5.
    EXPECT_EQ(SamplesOf(network->Output("add", 0)), std::vector<float>(81, 0.75f));
    EXPECT_EQ(SamplesOf(network->Output("down", 0)), std::vector<float>(81, 0.0f));
    EXPECT_EQ(SamplesOf(network->Output("base", 0)), std::vector<float>(81, 0.25f));
    EXPECT_NE(network->Output("add", 0).get(), network->Output("base", 0).get());
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
