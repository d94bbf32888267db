// Project files: reading, the errors each mistake gives, saving, and builds
// that come out the same after a save and a load.
#include <algorithm>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <type_traits>

#include "host/FileInput.h"
#include "host/ImageIO.h"
#include "host/NetworkFile.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using NetworkFileTest = HostTest;
using json = nlohmann::json;

// "device/output=name" for each export.
std::vector<std::string> ExportNames(const Project& project) {
    std::vector<std::string> names;
    for (const ExportEntry& entry : project.exports)
        names.push_back(entry.device + "/" + std::to_string(entry.output) + "=" + entry.name);
    return names;
}

// A device's saved state in base64, after `change` has had its way.
std::string StateOf(Host& host, const char* type,
                    const std::function<void(Orogen::Device&)>& change = {}) {
    DeviceHandle device(*host.FindType(type));
    if (change) change(*device.get());
    std::ostringstream out(std::ios::binary);
    device->Save(out);
    return EncodeBase64(out.str());
}

TEST_F(NetworkFileTest, ReadsEverySection) {
    TempDir dir;
    WriteR32(dir / "dem.r32", Image{4, 3, 1, std::vector<float>(12, 0.5f)});
    const std::string text = R"({
      "world": {"extent": [-1, 2, 3, 5.5], "resolution": [4, 3], "verticalScale": 120},
      "globals": {"waterLevel": 0.25, "lightDirection": [1, 0, -1]},
      "seed": 77,
      "devices": [
        {"id": "flat", "type": "CHGT", "name": "Flat", "params": {"Height": 0.75},
         "anchor": [0.1, 0.9], "enabled": true, "bypassed": false},
        {"id": "add", "type": "Test Add",
         "params": {"Amount": -0.5, "Mode": "Add twice", "Report rows": true, "Tint": "#10a0FF"}},
        {"id": "pick", "type": "Test Add", "params": {"Mode": 2, "Tint": 255}, "enabled": false},
        {"id": "src", "type": "File Input", "file": "dem.r32", "kind": "heightfield"}
      ],
      "links": [
        {"from": "flat", "output": 0, "to": "add", "input": 0},
        {"from": "src", "to": "pick"},
        {"from": "flat", "to": "pick", "param": "Amount"}
      ],
      "export": [{"device": "add", "output": 0, "name": "terrain"}, {"device": "pick"}]
    })";
    host->Seeds().SetStart(1);
    Project project = ParseNetwork(*host, text, dir.path());
    Network& network = *project.network;
    const World& w = network.world;
    EXPECT_EQ(std::vector<double>(
                  {w.x0, w.y0, w.x1, w.y1, double(w.width), double(w.height), w.verticalScale}),
              std::vector<double>({-1, 2, 3, 5.5, 4, 3, 120}));
    EXPECT_EQ(network.globals.waterLevel, 0.25f);
    EXPECT_EQ(network.globals.lightDirection[2], -1.0f);
    EXPECT_EQ(network.seed, std::optional<uint32_t>(77));
    EXPECT_EQ(host->Seeds().Start(), 77u);
    EXPECT_EQ(network.Ids(), (std::vector<std::string>{"flat", "add", "pick", "src"}));

    Orogen::Device& flat = network.Get("flat");
    EXPECT_EQ(network.TypeOf("flat").typeName, "Constant");
    EXPECT_STREQ(flat.GetName(), "Flat");
    EXPECT_EQ(std::vector<float>(flat.anchor, flat.anchor + 2), std::vector<float>({0.1f, 0.9f}));
    EXPECT_EQ(Orogen::GetParameter(&flat, "Height")->f, 0.75f);

    const std::vector<Orogen::ParamRecord>& add = network.Get("add").params.records;
    EXPECT_EQ(add[0].value.f, -0.5f);
    EXPECT_EQ(std::vector<int32_t>({add[1].value.i, add[2].value.i, add[3].value.i}),
              std::vector<int32_t>({1, 1, 0x10A0FF}));
    const Orogen::Device& pick = network.Get("pick");
    EXPECT_EQ(pick.params.records[2].value.i, 2);
    EXPECT_EQ(pick.params.records[3].value.i, 255);
    EXPECT_EQ(pick.enabled, 0);
    EXPECT_EQ(static_cast<FileInput&>(network.Get("src")).File(), dir / "dem.r32");

    std::vector<Link> links = network.Links();
    ASSERT_EQ(links.size(), 3u);
    EXPECT_EQ(links[1].from, "src");
    EXPECT_EQ(links[1].to, "pick");
    EXPECT_EQ(links[2].parameter, "Amount");
    EXPECT_TRUE(project.exportsListed);
    EXPECT_EQ(ExportNames(project), (std::vector<std::string>{"add/0=terrain", "pick/0=pick"}));

    EXPECT_EQ(network.Build().Find("pick")->status, BuildStatus::Disabled);
    // 0.75 - 2 * 0.5, clamped.
    EXPECT_EQ(SamplesOf(network.Output("add", 0)), std::vector<float>(12, 0.0f));
}

TEST_F(NetworkFileTest, DefaultsAndDefaultExports) {
    Project empty = ParseNetwork(*host, "{}", "");
    const World& w = empty.network->world;
    EXPECT_EQ(std::vector<double>(
                  {w.x0, w.y0, w.x1, w.y1, double(w.width), double(w.height), w.verticalScale}),
              std::vector<double>({0, 0, 1, 1, 1025, 1025, 1}));
    EXPECT_FALSE(empty.network->seed);
    EXPECT_TRUE(empty.exports.empty());
    EXPECT_FALSE(empty.exportsListed);

    // Without an export list, the outputs that feed nothing are exported.
    Project project = ParseNetwork(*host, R"({
      "devices": [{"id": "a", "type": "Test Ramp"}, {"id": "b", "type": "Test Add"},
                  {"id": "c", "type": "Test Add"}, {"id": "d", "type": "Test Ramp"}],
      "links": [{"from": "a", "to": "b"}, {"from": "a", "to": "c"}]})",
                                   "");
    EXPECT_EQ(ExportNames(project), (std::vector<std::string>{"b/0=b", "c/0=c", "d/0=d"}));
}

// A world without an extent takes the first GeoTIFF File Input's; one with an
// extent keeps it, and files without georeferencing change nothing.
TEST_F(NetworkFileTest, WorldExtentFromAGeoTiff) {
    if (!CanUseTiff()) GTEST_SKIP() << "this build has no TIFF";
    TempDir dir;
    const Image dem{5, 3, 1, std::vector<float>(15, 0.5f)};
    WriteGeoTiff(dir / "dem.tif", dem, {100, 900, 500, 100});
    WriteR32(dir / "dem.r32", dem);
    WriteBytes(dir / "broken.tif", "II*");
    const std::string raw = R"("devices": [{"id": "raw", "type": "File Input", "file": "dem.r32"})";
    const std::string devices = raw + R"(, {"id": "flat", "type": "CHGT"},
        {"id": "broken", "type": "File Input", "file": "broken.tif"},
        {"id": "geo", "type": "File Input", "file": "dem.tif"}])";
    struct Case {
        std::string text;
        std::vector<double> extent;
        std::string from;
    };
    const Case cases[] = {
        {devices, {100, 900, 500, 100}, "geo"},
        {R"("world": {"resolution": [9, 9]},)" + devices, {100, 900, 500, 100}, "geo"},
        {R"("world": {"extent": [0, 0, 2, 2]},)" + devices, {0, 0, 2, 2}, ""},
        {raw + "]", {0, 0, 1, 1}, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Project project = ParseNetwork(*host, "{" + c.text + "}", dir.path());
        const World& w = project.network->world;
        EXPECT_EQ(std::vector<double>({w.x0, w.y0, w.x1, w.y1}), c.extent);
        EXPECT_EQ(project.extentFrom, c.from);
    }
}

TEST_F(NetworkFileTest, EachMistakeGivesItsMessage) {
    // A network of one device "a" with `fields`; one of "a" and "b" with `rest`.
    auto one = [](const std::string& fields) {
        return R"({"devices": [{"id": "a", )" + fields + "}]}";
    };
    auto two = [](const std::string& rest) {
        return R"({"devices": [{"id": "a", "type": "Test Ramp"}, )"
               R"({"id": "b", "type": "Test Add"}], )" +
               rest + "}";
    };
    auto params = [&](const std::string& type, const std::string& params) {
        return one(R"("type": ")" + type + R"(", "params": {)" + params + "}");
    };
    // Saved states holding what "params" would refuse.
    auto hostileState = [&](const char* type, const std::function<void(Orogen::Device&)>& spoil) {
        return one(R"("type": ")" + std::string(type) + R"(", "state": ")" +
                   StateOf(*host, type, spoil) + "\"");
    };
    auto setParam = [](const char* name, auto value) {
        return [=](Orogen::Device& device) {
            Orogen::ParamValue* v = Orogen::GetParameter(&device, name);
            if constexpr (std::is_same_v<decltype(value), float>)
                v->f = value;
            else
                v->i = value;
        };
    };
    // Hostile sizes: the seed the loop adds moves every column by 14.
    const std::string height =
        R"({"devices": [{"id": "a", "type": "Constant", "params": {"Height": )";
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    const std::string huge(10'000'000, 'x');
    const std::string shortX = std::string(64, 'x') + "...";
    const std::string allowed =
        "ids and export names take no control characters and none of / \\ : * ? \" < > |";
    struct Case {
        std::string text;
        std::string message;
    };
    const Case cases[] = {
        {"{\n  \"devices\": [\n    {\"id\": \"a\",}\n  ]\n}",
         "line 3, column 16: malformed JSON: syntax error while parsing object key - unexpected "
         "'}'; expected string literal"},
        {"[1, 2]", "(top): expected a JSON object"},
        {height + deep + "}}]}", "line 1, column " + std::to_string(14 + height.size() + 61) +
                                     ": values nested deeper than 64 levels"},
        {R"({"world": {"verticalScale": 1e400}})",
         "line 1, column 43: 1e400 is too large for a number"},
        {height + "\"" + huge + "\"}}]}",
         "devices[0].params.Height: expected a number, not \"" + shortX + "\""},
        {"{\"" + huge + "\": 1}",
         shortX + ": unknown key; valid: \"world\", \"globals\", \"seed\", \"devices\", "
                  "\"links\", \"export\""},
        {R"({"device": []})",
         "device: unknown key; valid: \"world\", \"globals\", \"seed\", \"devices\", \"links\", "
         "\"export\""},
        {one(R"("type": "Constnt")"),
         "devices[0].type: unknown device type \"Constnt\"; nearest: \"Constant\""},
        {one(R"("type": "Test Ramp", "colour": 1)"),
         "devices[0].colour: unknown key; valid: \"id\", \"type\", \"name\", \"params\", "
         "\"anchor\", \"enabled\", \"bypassed\", \"state\", \"file\", \"kind\", \"value\", "
         "\"typeCode\", \"actions\""},
        {one(R"("type": "Combiner", "actions": ["Swap inputs", "Swap"])"),
         "devices[0].actions[1]: \"a\" has no action \"Swap\"; valid: \"Swap inputs\""},
        {one(R"("type": "Test Add", "actions": ["Swap inputs"])"),
         "devices[0].actions[0]: \"a\" has no action \"Swap inputs\"; valid: none"},
        {one(R"("type": "Combiner", "actions": "Swap inputs")"),
         "devices[0].actions: expected an array of action labels"},
        {one(R"("type": "Combiner", "actions": [3])"),
         "devices[0].actions[0]: expected a string, not 3"},
        {R"({"devices": [{"type": "Test Ramp"}]})", "devices[0]: missing \"id\""},
        {R"({"devices": [{"id": "a", "type": "Test Ramp"}, {"id": "a", "type": "Test Add"}]})",
         "devices[1].id: duplicate id \"a\" (first at devices[0])"},
        {params("Constant", R"("Heigth": 1)"),
         "devices[0].params.Heigth: unknown parameter; valid: \"Height\""},
        {params("Constant", R"("Height": 2)"), "devices[0].params.Height: 2 is outside 0..1"},
        {params("Constant", R"("Height": "high")"),
         "devices[0].params.Height: expected a number, not \"high\""},
        {params("Test Add", R"("Mode": "Subtract")"),
         "devices[0].params.Mode: unknown choice \"Subtract\"; valid: \"Add\", \"Add twice\", "
         "\"Keep\""},
        {params("Test Add", R"("Mode": 3)"), "devices[0].params.Mode: index 3 is outside 0..2"},
        {params("Test Add", R"("Report rows": 1)"),
         "devices[0].params.Report rows: expected true or false, not 1"},
        {params("Test Add", R"("Tint": "#12345")"),
         "devices[0].params.Tint: expected an integer or a colour \"#RRGGBB\", not \"#12345\""},
        {params("Blur", R"("Blur radius": "#000005")"),
         "devices[0].params.Blur radius: expected an integer, not \"#000005\""},
        {params("Test Add", R"("Tint": 16777216)"),
         "devices[0].params.Tint: 16777216 is outside 0..16777215"},
        {params("Test Add", R"("Tint": 1.5)"),
         "devices[0].params.Tint: expected an integer, not 1.5"},
        {one(R"("type": "Test Add", "name": "a name much longer than 23")"),
         "devices[0].name: longer than 23 characters"},
        {one(R"("type": "Test Add", "state": "Zm9v!")"), "devices[0].state: not valid base64"},
        {one(R"("type": "Test Add", "state": ")" + StateOf(*host, "Constant") + "\""),
         "devices[0].state: the saved state does not load into a \"Test Add\" device"},
        {hostileState("Constant", setParam("Height", std::numeric_limits<float>::quiet_NaN())),
         "devices[0].state: parameter \"Height\": nan is outside 0..1"},
        {hostileState("Constant", setParam("Height", std::numeric_limits<float>::infinity())),
         "devices[0].state: parameter \"Height\": inf is outside 0..1"},
        {hostileState("Blur", setParam("Blur radius", std::numeric_limits<int32_t>::max())),
         "devices[0].state: parameter \"Blur radius\": 2147483647 is outside 0..128"},
        {hostileState("Test Add", setParam("Mode", 7)),
         "devices[0].state: parameter \"Mode\": 7 is outside 0..2"},
        {hostileState("Test Add", setParam("Report rows", 2)),
         "devices[0].state: parameter \"Report rows\": 2 is neither 0 nor 1"},
        {hostileState(
             "Constant",
             [](Orogen::Device& d) { d.anchor[1] = -std::numeric_limits<float>::infinity(); }),
         "devices[0].state: the anchor (0.5, -inf) is not finite"},
        {one(R"("type": "Test Add", "file": "x.r32")"),
         "devices[0].file: only a \"File Input\" device takes one"},
        {one(R"("type": "File Input")"), "devices[0]: a \"File Input\" needs \"file\""},
        {one(R"("type": "File Input", "file": "x", "kind": "image")"),
         "devices[0].kind: unknown kind \"image\"; valid: \"heightfield\", \"bitmap\""},
        {two(R"("links": [{"from": "x", "to": "b"}])"), "links[0].from: no device \"x\""},
        {two(R"("links": [{"from": "a", "to": "b", "input": 1}])"),
         "links[0].input: \"b\" has no input 1 (it has 1)"},
        {two(R"("links": [{"from": "a", "output": 2, "to": "b"}])"),
         "links[0].output: \"a\" has no output 2 (it has 1)"},
        {two(R"("links": [{"from": "a", "to": "b", "param": "Amout"}])"),
         "links[0].param: \"b\" has no parameter \"Amout\"; nearest: \"Amount\"; valid: "
         "\"Amount\", \"Report rows\", \"Mode\", \"Tint\""},
        {params("Test Add", R"("Tint ": 1)"),
         "devices[0].params.Tint : unknown parameter; nearest: \"Tint\"; valid: \"Amount\", "
         "\"Report rows\", \"Mode\", \"Tint\""},
        {R"({"devices": [{"id": "a", "type": "Test Ramp"}, {"id": "c", "type": "Coast Erosion"}],
            "links": [{"from": "a", "to": "c", "input": "Hardnes Map"}]})",
         "links[0].input: \"c\" has no input \"Hardnes Map\"; nearest: \"Hardness Map\"; valid: "
         "\"Primary Input\", \"Hardness Map\""},
        {R"({"devices": [{"id": "a", "type": "Test Ramp"}, {"id": "c", "type": "Arithmetic Combiner"}],
            "links": [{"from": "a", "to": "c", "input": "Primary Input"}]})",
         "links[0].input: \"c\" has 2 inputs named \"Primary Input\"; give its number"},
        {R"({"devices": [{"id": "c", "type": "Coast Erosion"}], "export": [{"device": "c", "output": "Beach"}]})",
         "export[0].output: \"c\" has no output \"Beach\"; nearest: \"Beach Map\"; valid: "
         "\"Primary Output\", \"Water Map\", \"Beach Map\""},
        {two(R"("links": [{"from": "a", "to": "b"}, {"from": "a", "to": "b", "input": 0}])"),
         "links[1].input: this port is linked already by links[0]"},
        {R"({"devices": [{"id": "a", "type": "Test Add"}, {"id": "b", "type": "Test Add"}],
            "links": [{"from": "a", "to": "b"}, {"from": "b", "to": "a"}]})",
         "links[1]: linking \"b\" to \"a\" would make a cycle between devices: \"a\" -> \"b\" -> "
         "\"a\""},
        {R"({"world": {"resolution": [0, 5]}})", "world.resolution[0]: 0 is not a positive size"},
        {R"({"world": {"resolution": [32769, 32769]}})",
         "world.resolution: 32769 x 32769 is more than 2^30 samples, the most a file holds"},
        {R"({"world": {"extent": [0, 0, 1]}})", "world.extent: expected [x0, y0, x1, y1]"},
        {R"({"world": {"extent": [0, 0, 0, 1]}})",
         "world.extent: x1 0 must be above x0 0 by a finite size"},
        {R"({"world": {"extent": [0, 1, 1, 0]}})",
         "world.extent: y1 0 must be above y0 1 by a finite size"},
        {R"({"world": {"extent": [-1e308, 0, 1e308, 1]}})",
         "world.extent[0]: -1e+308 is beyond the range of a float"},
        {R"({"world": {"extent": [0, 0, 1, 1e-30]}})",
         "world.extent: the height 1e-30 is below 1e-29"},
        {R"({"world": {"extent": [-3e38, 0, 3e38, 1]}})",
         "world.extent: x1 3e+38 must be above x0 -3e+38 by a finite size"},
        {R"({"world": {"verticalScale": -2}})", "world.verticalScale: -2 is not positive"},
        {R"({"globals": {"lightDirection": [0, "up", 1]}})",
         "globals.lightDirection[1]: expected a number, not \"up\""},
        {R"({"seed": -1})", "seed: -1 is outside 0..4294967295"},
        {R"({"seed": 18446744073709551615})", "seed: 18446744073709551615 is too large"},
        {R"({"seed": 4294967296})", "seed: 4294967296 is outside 0..4294967295"},
        {two(R"("export": [{"device": "z"}])"), "export[0].device: no device \"z\""},
        {two(R"("export": [{"device": "a", "name": "../up"}])"),
         "export[0].name: \"../up\" holds '/'; " + allowed},
        {two(R"("export": [{"device": "a", "name": "a\u0000b"}])"),
         "export[0].name: \"a\\u0000b\" holds the control character U+0000; " + allowed},
        {two(R"("export": [{"device": "a", "name": ")" + huge.substr(0, 129) + R"("}])"),
         "export[0].name: \"" + shortX + "\" is longer than 128 bytes"},
        {two(R"("export": [{"device": "a", "name": "Con.x"}])"),
         "export[0].name: \"Con.x\" is the name of a device on Windows"},
        {two(R"("export": [{"device": "a", "name": ".hidden"}])"),
         "export[0].name: \".hidden\" begins or ends with a dot or a space"},
        {R"({"devices": [{"id": "a:b", "type": "Test Ramp"}]})",
         "devices[0].id: \"a:b\" holds ':'; " + allowed},
        {R"({"devices": [{"id": ")" + huge.substr(0, 65) + R"(", "type": "Test Ramp"}]})",
         "devices[0].id: \"" + shortX + "\" is longer than 64 bytes"},
        {one(R"("type": "Test Ramp", "name": "a\tb")"),
         "devices[0].name: holds the control character U+0009; a name takes no control "
         "characters"},
        {two(R"("export": [{"device": "a"}, {"device": "b", "name": "a"}])"),
         "export[1].name: the name \"a\" is used already by export[0]"},
    };
    uint64_t allocations = host->Allocator().Outstanding();
    uint64_t packets = HostPacket::Live();
    host->Seeds().SetStart(3);
    host->Seeds().NextSeed();
    SeedSource::State seeds = host->Seeds().Save();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        try {
            // A seed set before the mistake must not stay set.
            std::string text = c.text;
            if (text[0] == '{') text = "{\"seed\": 12345," + text.substr(1);
            ParseNetwork(*host, text, "");
            ADD_FAILURE() << "accepted";
        } catch (const NetworkFileError& e) {
            EXPECT_EQ(std::string(e.what()), c.message);
            EXPECT_EQ(e.Place() + ": " + e.Message(), c.message);
        }
        // Nothing of a failed load stays behind.
        EXPECT_EQ(host->Allocator().Outstanding(), allocations);
        EXPECT_EQ(HostPacket::Live(), packets);
        EXPECT_EQ(host->Seeds().Save().start, seeds.start);
        EXPECT_EQ(host->Seeds().Save().calls, seeds.calls);
    }
}

// A seed gives each seeded device left to itself a seed of the seed and its
// id: the same whatever the order of the devices or the seeds drawn before.
TEST_F(NetworkFileTest, SeedsFollowTheNetworkSeedAndTheDeviceId) {
    const std::string state = StateOf(*host, "Voronoi", [](Orogen::Device& cells) {
        Orogen::GetParameter(&cells, "Random Seed")->i = 77;
    });
    auto seeds = [&](const std::string& seed, const std::vector<std::string>& ids,
                     ParseOptions options = {}) {
        json file = json::parse("{" + seed + "\"devices\": []}");
        for (const std::string& id : ids) {
            json device = {{"id", id}, {"type", "Voronoi"}};
            if (id == "own") device["params"] = {{"Random Seed", 12}, {"Scale", 2}};
            if (id == "saved") device["state"] = state;
            file["devices"].push_back(device);
        }
        Project project = ParseNetwork(*host, file.dump(), "", options);
        std::map<std::string, int32_t> found;
        for (const std::string& id : ids)
            found[id] = Orogen::GetParameter(&project.network->Get(id), "Random Seed")->i;
        return found;
    };
    ParseOptions seven;
    seven.seed = 7;
    ParseOptions overridden;
    overridden.overrides.push_back({"b.Random Seed", 500, "--set b.Random Seed"});
    overridden.overrides.push_back({"a.Scale", 3, "--set a.Scale"});
    const std::map<std::string, int32_t> bySeven = seeds("\"seed\": 7,", {"a", "b", "c"});
    // Pinned: a change here changes every saved world.
    EXPECT_EQ(bySeven, (std::map<std::string, int32_t>{{"a", 19991}, {"b", 14550}, {"c", 23742}}));
    struct Case {
        const char* what;
        std::map<std::string, int32_t> got, want;
    };
    const Case cases[] = {
        {"another order", seeds("\"seed\": 7,", {"c", "a", "b"}), bySeven},
        {"the option without a file seed", seeds("", {"a", "b", "c"}, seven), bySeven},
        {"the option over the file's seed", seeds("\"seed\": 8,", {"b", "c", "a"}, seven), bySeven},
        {"own, saved and overridden seeds stay",
         seeds("\"seed\": 7,", {"own", "saved", "a", "b"}, overridden),
         {{"own", 12}, {"saved", 77}, {"a", bySeven.at("a")}, {"b", 500}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(c.got, c.want);
    }
    // Another seed gives other devices.
    const std::map<std::string, int32_t> byEight = seeds("\"seed\": 8,", {"a", "b", "c"});
    EXPECT_NE(byEight.at("a"), bySeven.at("a"));
    EXPECT_NE(byEight.at("b"), bySeven.at("b"));
}

// An override is checked as the file's "params" are, and named by its place.
TEST_F(NetworkFileTest, OverridesAreCheckedLikeTheFile) {
    const std::string text = R"({"devices": [{"id": "hill", "type": "Radial Grad"},
        {"id": "hill.top", "type": "Constant"},
        {"id": "r", "type": "Router", "params": {"Output Choice": 2, "Number of Outputs": 3}}]})";
    struct Case {
        std::string target;
        json value;
        std::string message;  // empty: accepted, and the parameter reads `after`
        float after = 0;
    };
    const Case cases[] = {
        {"r.Output Choice", 1, "", 1},  // replaces the file's 2, which would come later
        {"hill.Radius", 80, "--set hill.Radius: 80 is outside 0..64"},
        {"hill.Radius", "wide", "--set hill.Radius: expected a number, not \"wide\""},
        {"hill.Type", "Cone", "", 4},
        {"hill.Type", "Spike", "--set hill.Type: unknown choice \"Spike\"; valid: "},
        {"hill.top.Height", 0.25, "", 0.25f},  // the longest id that fits
        {"hill.top.Height", 2, "--set hill.top.Height: 2 is outside 0..1"},
        {"hil.Radius", 1, "--set hil.Radius: no device \"hil\""},
        {"hill", 1, "--set hill: expected ID.PARAM=VALUE"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.target + "=" + c.value.dump());
        ParseOptions options;
        options.overrides.push_back({c.target, c.value, "--set " + c.target});
        try {
            Project project = ParseNetwork(*host, text, "", options);
            EXPECT_EQ(c.message, "") << "accepted";
            const size_t dot = c.target.rfind('.');
            const Orogen::ParamValue* value = Orogen::GetParameter(
                &project.network->Get(c.target.substr(0, dot)), c.target.substr(dot + 1).c_str());
            EXPECT_EQ(c.value.is_number_float() ? value->f : float(value->i), c.after);
        } catch (const NetworkFileError& e) {
            ASSERT_NE(c.message, "") << e.what();
            EXPECT_EQ(std::string(e.what()).substr(0, c.message.size()), c.message);
        }
    }
}

// Links and exports name ports by number or by name.
TEST_F(NetworkFileTest, PortsByNameOrNumber) {
    Project project = ParseNetwork(*host, R"({"devices": [
        {"id": "ramp", "type": "Test Ramp"}, {"id": "coast", "type": "Coast Erosion"},
        {"id": "cells", "type": "Voronoi", "params": {"Distortion Enable": true}}],
      "links": [{"from": "ramp", "to": "coast", "input": "Hardness Map"},
                {"from": "ramp", "to": "coast", "input": 0},
                {"from": "coast", "output": "Water Map", "to": "cells", "input": "Distortion Map"}],
      "export": [{"device": "coast", "output": "Beach Map"}, {"device": "coast", "output": 0}]})",
                                   "");
    std::vector<std::string> links;
    for (const Link& link : project.network->Links())
        links.push_back(link.from + "/" + std::to_string(link.output) + ">" + link.to + "/" +
                        std::to_string(link.input));
    std::sort(links.begin(), links.end());
    EXPECT_EQ(links,
              (std::vector<std::string>{"coast/1>cells/0", "ramp/0>coast/0", "ramp/0>coast/1"}));
    EXPECT_EQ(ExportNames(project),
              (std::vector<std::string>{"coast/2=coast_2", "coast/0=coast_0"}));
}

TEST(NetworkFileBase64, RoundTripsAndRefusesDamage) {
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {std::string("\0\xff\x80", 3), "AP+A"},
    };
    for (const auto& [bytes, text] : vectors) {
        EXPECT_EQ(EncodeBase64(bytes), text);
        EXPECT_EQ(DecodeBase64(text), bytes);
    }
    for (const char* bad : {"Zg=", "Zg=a", "Z===", "Zm9v\n", "Zm 9", "@@@@", "=AAA"})
        EXPECT_FALSE(DecodeBase64(bad)) << bad;
}

TEST_F(NetworkFileTest, SaveLoadBuildGivesTheSameOutputs) {
    TempDir dir;
    fs::create_directory(dir / "data");
    WriteR32(dir / "data" / "dem.r32", Image{33, 21, 1, std::vector<float>(33 * 21, 0.375f)});
    std::string devices = R"(
        {"id": "ramp", "type": "Test Ramp", "params": {"Waves": true, "Offset": 0.125}},
        {"id": "add", "type": "Test Add", "params": {"Amount": 0.3, "Mode": "Add twice"}},
        {"id": "drive", "type": "Constant", "params": {"Height": 0.6}, "name": "Driver"},
        {"id": "scaled", "type": "Test Add"},
        {"id": "dem", "type": "File Input", "file": "data/dem.r32"},
        {"id": "on-dem", "type": "Test Add", "bypassed": true})";
    std::string links = R"(
        {"from": "ramp", "to": "add"}, {"from": "add", "to": "scaled"},
        {"from": "drive", "to": "scaled", "param": "Amount"}, {"from": "dem", "to": "on-dem"})";
    // Module devices join in where the module has them.
    for (const char* type : {"Radial Grad", "Gradient", "Voronoi", "Blur"}) {
        if (!host->FindType(type)) continue;
        devices += std::string(R"(, {"id": ")") + type + R"(", "type": ")" + type + "\"}";
        if (host->FindType(type)->descriptor.category != 1)
            links += std::string(R"(, {"from": "scaled", "to": ")") + type + "\"}";
    }
    std::string text = R"({"world": {"extent": [10, 20, 30, 35], "resolution": [33, 21]},
        "globals": {"waterLevel": 0.3}, "seed": 9, "devices": [)" +
                       devices + R"(], "links": [)" + links +
                       R"(], "export": [{"device": "scaled", "name": "terrain"}]})";
    WriteBytes(dir / "project.json", text);

    Project first = LoadNetworkFile(*host, dir / "project.json");
    BuildOptions options;
    options.workers = 2;
    BuildReport built = first.network->Build(options);
    ASSERT_EQ(built.Count(BuildStatus::Built), first.network->Size());
    auto expected = AllOutputs(*first.network);
    const size_t linkCount = first.network->Links().size();

    SaveNetworkFile(first, dir / "saved.json");
    first.network.reset();
    Project second = LoadNetworkFile(*host, dir / "saved.json");
    ASSERT_EQ(second.network->Build().Count(BuildStatus::Built), second.network->Size());
    ExpectSameOutputs(expected, AllOutputs(*second.network));
    // What was saved reads back to the same file, paths still relative.
    EXPECT_EQ(NetworkToText(second, dir.path()), ReadBytes(dir / "saved.json"));
    EXPECT_NE(ReadBytes(dir / "saved.json").find("\"file\": \"data/dem.r32\""), std::string::npos);
    EXPECT_EQ(ExportNames(second), std::vector<std::string>{"scaled/0=terrain"});
    EXPECT_EQ(second.network->Links().size(), linkCount);

    // The File Input's state holds the relative path too: the project moved
    // elsewhere, without "file", reads the file beside it.
    nlohmann::json saved = nlohmann::json::parse(ReadBytes(dir / "saved.json"));
    for (nlohmann::json& device : saved["devices"]) {
        if (device["id"] != "dem") continue;
        const std::optional<std::string> state = DecodeBase64(device["state"].get<std::string>());
        ASSERT_TRUE(state);
        EXPECT_EQ(state->find(dir.path().string()), std::string::npos);
        EXPECT_NE(state->find("data/dem.r32"), std::string::npos);
        device.erase("file");
    }
    fs::create_directories(dir / "moved" / "data");
    WriteR32(dir / "moved" / "data" / "dem.r32",
             Image{33, 21, 1, std::vector<float>(33 * 21, 0.625f)});
    WriteBytes(dir / "moved" / "p.json", saved.dump());
    Project moved = LoadNetworkFile(*host, dir / "moved" / "p.json");
    ASSERT_EQ(moved.network->Build().Count(BuildStatus::Built), moved.network->Size());
    EXPECT_EQ(SamplesOf(moved.network->Output("dem", 0)), std::vector<float>(33 * 21, 0.625f));
}

TEST_F(NetworkFileTest, MissingFilesAndFolders) {
    TempDir dir;
    try {
        LoadNetworkFile(*host, dir / "none.json");
        ADD_FAILURE() << "accepted";
    } catch (const NetworkFileError& e) {
        EXPECT_EQ(std::string(e.what()), (dir / "none.json").string() + ": cannot open the file");
    }
    // Saving into a missing folder writes nothing.
    Project project = ParseNetwork(*host, R"({"devices": [{"id": "a", "type": "Test Ramp"}]})", "");
    EXPECT_THROW(SaveNetworkFile(project, dir / "no" / "such.json"), std::runtime_error);
    EXPECT_TRUE(dir.List().empty());
    // Over an existing file, the new text replaces it whole.
    WriteBytes(dir / "p.json", "old");
    SaveNetworkFile(project, dir / "p.json");
    EXPECT_EQ(ReadBytes(dir / "p.json"), NetworkToText(project, dir.path()));
    EXPECT_EQ(dir.List(), std::vector<std::string>{"p.json"});
}

}  // namespace
}  // namespace basekit::host::testing
