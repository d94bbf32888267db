// orogen devices (the table), the embedded demo and the default command.

#include <gtest/gtest.h>

#include <algorithm>
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
