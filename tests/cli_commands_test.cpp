// orogen devices, the embedded demo and the default command.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli_support.h"
#include "host/ImageIO.h"

namespace orogen::testing {
namespace {

using json = nlohmann::json;

const json* FindType(const json& catalogue, const std::string& typeName) {
    for (const json& entry : catalogue)
        if (entry["typeName"] == typeName) return &entry;
    return nullptr;
}

TEST(CliDevices, JsonCatalogueDescribesEachType) {
    Scratch dir;
    RunResult run = RunOrogen({"devices", "--json"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    json catalogue = json::parse(run.out);
    ASSERT_TRUE(catalogue.is_array());

    const json* gradient = FindType(catalogue, "Gradient");
    ASSERT_NE(gradient, nullptr);
    EXPECT_EQ((*gradient)["index"], 1);
    EXPECT_EQ((*gradient)["tag"], "GRAD");
    EXPECT_EQ((*gradient)["category"], 1);
    EXPECT_EQ((*gradient)["dataTypes"], 4);
    EXPECT_EQ((*gradient)["description"], "Creates a uniform gradient in a given direction");
    EXPECT_EQ((*gradient)["inputs"].size(), 0u);
    ASSERT_EQ((*gradient)["outputs"].size(), 1u);
    EXPECT_EQ((*gradient)["outputs"][0]["kind"], "heightfield");
    const json& params = (*gradient)["parameters"];
    ASSERT_EQ(params.size(), 3u);
    EXPECT_EQ(params[0], json::parse(R"({"name": "Direction", "kind": "integer", "value": 0,
        "minimum": 0, "maximum": 360, "options": 0, "flags": 0, "labels": [],
        "description": "The angle of the gradient. 0 is North"})"));
    EXPECT_EQ(params[1]["kind"], "real");
    EXPECT_EQ(params[1]["value"], 1.0);
    EXPECT_EQ(params[1]["maximum"], 32.0);
    EXPECT_EQ(params[1]["options"], 513);
    EXPECT_EQ(params[2]["labels"], json::parse(R"(["None", "Linear", "Discontinuous"])"));
    EXPECT_TRUE(params[2]["description"].is_null());

    const json* radial = FindType(catalogue, "Radial Grad");
    ASSERT_NE(radial, nullptr);
    EXPECT_EQ((*radial)["index"], 13);
    EXPECT_EQ((*radial)["parameters"][1]["labels"],
              json::parse(R"(["Spherical", "Gaussian", "Diamond", "Square", "Cone"])"));

    const json* file = FindType(catalogue, "File Input");
    ASSERT_NE(file, nullptr);
    EXPECT_TRUE((*file)["index"].is_null());  // the host's own

    // Catalogue indices are distinct and in 0..34.
    std::vector<int> seen;
    for (const json& entry : catalogue) {
        if (entry["index"].is_null()) continue;
        int index = entry["index"];
        EXPECT_GE(index, 0);
        EXPECT_LE(index, 34);
        EXPECT_EQ(std::count(seen.begin(), seen.end(), index), 0);
        seen.push_back(index);
    }
}

TEST(CliDevices, TableListsTypesAndParameters) {
    Scratch dir;
    RunResult run = RunOrogen({"devices"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    for (const char* text : {"GRAD", "Gradient", "CGRD", "Radial Grad", "Direction", "Radius",
                             "None|Linear|Discontinuous", "How large an area the gradient should cover"})
        EXPECT_NE(run.out.find(text), std::string::npos) << text;
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
        const auto width = (unsigned(uint8_t(png[16])) << 24) | (unsigned(uint8_t(png[17])) << 16) |
                           (unsigned(uint8_t(png[18])) << 8) | unsigned(uint8_t(png[19]));
        EXPECT_EQ(png.substr(12, 4), "IHDR");
        EXPECT_EQ(width, manifest["outputs"][0]["width"].get<unsigned>());
        EXPECT_EQ(int(png[24]), 8);
        EXPECT_EQ(int(png[25]), 2);
        GTEST_SKIP() << "this build has no libpng: preview.png cannot be read back";
    }
    basekit::host::Image preview = basekit::host::ReadPng(dir / "out" / "preview.png");
    EXPECT_EQ(preview.channels, 3);
    EXPECT_EQ(preview.width, manifest["outputs"][0]["width"].get<int>());
    // A picture, not a flat colour.
    float low = 1, high = 0;
    for (float v : preview.samples) {
        low = std::min(low, v);
        high = std::max(high, v);
    }
    EXPECT_GT(high - low, 0.3f);
}

}  // namespace
}  // namespace orogen::testing
