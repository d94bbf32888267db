// orogen devices (the table), the embedded demo and the default command.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli_support.h"
#include "host/ImageIO.h"

namespace orogen::testing {
namespace {

using json = nlohmann::json;

// The JSON catalogue is compared whole with tests/golden/devices.json.
TEST(CliDevices, TableListsTypesAndParameters) {
    Scratch dir;
    RunResult run = RunOrogen({"devices"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    for (const char* text : {"GRAD", "Gradient", "CGRD", "Radial Grad", "Direction", "Radius",
                             "None|Linear|Discontinuous", "How large an area the gradient should cover"})
        EXPECT_NE(run.out.find(text), std::string::npos) << text;
}

// The project's version and the module's count of device types.
TEST(CliCommands, VersionNamesTheProjectAndTheModule) {
    Scratch dir;
    const std::string cmake = ReadText(fs::path(BASEKIT64_SOURCE_DIR) / "CMakeLists.txt");
    const size_t at = cmake.find("VERSION ", cmake.find("project(BaseKit64")) + 8;
    const std::string version = cmake.substr(at, cmake.find_first_of(" )", at) - at);
    const json golden = json::parse(ReadText(fs::path(BASEKIT64_SOURCE_DIR) / "tests" / "golden" / "devices.json"));
    size_t types = 0;
    for (const json& type : golden) types += type["index"].is_number() ? 1 : 0;
    RunResult run = RunOrogen({"--version", "--module", BASEKIT64_MODULE_PATH}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "orogen " + version + "\nmodule " + std::string(BASEKIT64_MODULE_PATH) + ": " +
                           std::to_string(types) + " device types\n");
    // Without a module the version still shows; the missing module is an error.
    run = RunOrogen({"--version", "--module", (dir / "none.so").string()}, dir.path());
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.out, "orogen " + version + "\n");
    EXPECT_NE(run.err.find("none.so"), std::string::npos) << run.err;
}

// Options on either side of the command give the same build; a value that
// reads like a command stays a value.
TEST(CliCommands, OptionsBeforeOrAfterTheCommand) {
    Scratch dir;
    WriteText(dir / "net.json", R"({"world": {"resolution": [9, 7]},
        "devices": [{"id": "hill", "type": "Radial Grad"}]})");
    const std::string module = BASEKIT64_MODULE_PATH;
    const std::vector<std::vector<std::string>> orders = {
        {"build", "net.json", "-q", "--format", "r32", "-o", "build", "--module", module},
        {"--module", module, "build", "-q", "--format", "r32", "-o", "build", "net.json"},
        {"-q", "--format", "r32", "-o", "build", "build", "net.json"},
        {"-o", "devices", "--format=r32", "--threads", "2", "build", "net.json", "-q"},
    };
    for (const std::vector<std::string>& args : orders) {
        SCOPED_TRACE(args[0] + " " + args[1] + " " + args[2]);
        fs::remove_all(dir / "build");
        fs::remove_all(dir / "devices");
        RunResult run = RunOrogen(args, dir.path());
        ASSERT_EQ(run.code, 0) << run.err;
        EXPECT_EQ(run.out, "");
        const fs::path out = dir / (args[0] == "-o" ? "devices" : "build");
        EXPECT_EQ(ListFolder(out), (std::vector<std::string>{"hill.hdr", "hill.r32", "manifest.json"}));
    }
    RunResult run = RunOrogen({"devices", "--module", module}, dir.path());
    EXPECT_EQ(run.code, 0) << run.err;
    EXPECT_NE(run.out.find("Radial Grad"), std::string::npos);
}

// Every parameter of the module has a unit and a meaning, and README.md's
// tables say the same as `orogen devices`.
TEST(CliDevices, EveryParameterHasAUnitAndTheReadmeAgrees) {
    Scratch dir;
    RunResult run = RunOrogen({"devices", "--json"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    const json catalogue = json::parse(run.out);
    std::map<std::pair<std::string, std::string>, json> parameters;
    for (const json& type : catalogue)
        for (const json& p : type["parameters"]) {
            if (!type["index"].is_null()) {
                EXPECT_TRUE(p["unit"].is_string()) << type["typeName"] << " " << p["name"] << ": no unit";
                EXPECT_FALSE(p["meaning"].get<std::string>().empty()) << type["typeName"] << " " << p["name"];
            }
            parameters[{type["typeName"], p["name"]}] = p;
        }
    // The rows of each "**Type** parameters:" (or "**A** and **B** parameters:") table.
    std::istringstream readme(ReadText(fs::path(BASEKIT64_SOURCE_DIR) / "README.md"));
    std::vector<std::string> types;
    size_t rows = 0;
    for (std::string line; std::getline(readme, line);) {
        if (line.size() > 2 && line.rfind("**", 0) == 0 && line.find("** parameters:") != std::string::npos) {
            types.clear();
            for (size_t at = 0; (at = line.find("**", at)) != std::string::npos;) {
                const size_t end = line.find("**", at + 2);
                types.push_back(line.substr(at + 2, end - at - 2));
                at = end + 2;
            }
            continue;
        }
        if (line.empty() || line[0] != '|') {
            if (!line.empty()) types.clear();
            continue;
        }
        if (types.empty() || line.rfind("| Parameter |", 0) == 0 || line.rfind("|---", 0) == 0) continue;
        std::vector<std::string> cells;
        for (size_t at = 2; at < line.size();) {
            const size_t end = line.find(" |", at);
            cells.push_back(line.substr(at, end - at));
            at = end + 3;
        }
        ASSERT_EQ(cells.size(), 6u) << line;
        for (const std::string& type : types) {
            SCOPED_TRACE(type + " " + cells[0]);
            auto found = parameters.find({type, cells[0]});
            ASSERT_NE(found, parameters.end()) << "README.md lists a parameter the catalogue lacks";
            EXPECT_EQ(cells[4], found->second["unit"].get<std::string>());
            EXPECT_EQ(cells[5].rfind(found->second["meaning"].get<std::string>(), 0), 0u) << cells[5];
            ++rows;
        }
    }
    size_t moduleParameters = 0;
    for (const json& type : catalogue)
        if (!type["index"].is_null()) moduleParameters += type["parameters"].size();
    EXPECT_EQ(rows, moduleParameters) << "README.md lacks a table or a row";
}

TEST(CliDemo, EmbeddedNetworkIsTheExampleFile) {
    Scratch dir;
    RunResult run = RunOrogen({"demo", "--print"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, ReadText(fs::path(BASEKIT64_SOURCE_DIR) / "examples" / "demo.json"));
}

TEST(CliDemo, NoArgumentsBuildsTheDemoWithAPreview) {
    Scratch dir;
    RunResult run = RunOrogen({}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    json manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
    EXPECT_FALSE(manifest.contains("missing"));
    ASSERT_FALSE(manifest["outputs"].empty());
    for (const json& device : manifest["devices"]) EXPECT_EQ(device["status"], "built") << device;
    json demo = json::parse(ReadText(fs::path(BASEKIT64_SOURCE_DIR) / "examples" / "demo.json"));
    EXPECT_EQ(manifest["outputs"].size(), demo["export"].size());

    if (!basekit::host::CanReadPng()) {
        // Its header at least: 8-bit RGB of the export's size.
        const std::string png = ReadText(dir / "out" / "preview.png");
        ASSERT_GT(png.size(), 26u);
        unsigned width = 0;
        for (int k = 16; k < 20; ++k) width = width << 8 | uint8_t(png[k]);
        EXPECT_EQ(png.substr(12, 4), "IHDR");
        EXPECT_EQ(width, manifest["outputs"][0]["width"].get<unsigned>());
        EXPECT_EQ(png.substr(24, 2), std::string("\x08\x02", 2));
        GTEST_SKIP() << "this build has no libpng: preview.png cannot be read back";
    }
    basekit::host::Image preview = basekit::host::ReadPng(dir / "out" / "preview.png");
    EXPECT_EQ(preview.channels, 3);
    EXPECT_EQ(preview.width, manifest["outputs"][0]["width"].get<int>());
    // A picture, not a flat colour.
    const auto [low, high] = std::minmax_element(preview.samples.begin(), preview.samples.end());
    EXPECT_GT(*high - *low, 0.3f);
}

}  // namespace
}  // namespace orogen::testing
