// orogen build --html: the page's data holds every stride-th sample of each
// export, bit for bit, beside the page's files; orogen serve's options.

#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli_support.h"
#include "host/ImageIO.h"

namespace orogen::testing {
namespace {

using json = nlohmann::json;

const char* const kNetwork = R"({
  "world": {"extent": [0, 0, 4, 2], "resolution": [17, 9], "verticalScale": 0.25},
  "devices": [
    {"id": "cone", "type": "Radial Grad", "anchor": [1, 1], "params": {"Radius": 3, "Type": "Cone"}},
    {"id": "ramp", "type": "Gradient", "anchor": [0.25, 0.5],
     "params": {"Direction": 30, "Width": 1, "Tiling": "Linear"}}
  ],
  "export": [{"device": "cone", "name": "cone"}, {"device": "ramp", "name": "ramp"}]
})";

std::vector<unsigned char> FromBase64(const std::string& text) {
    std::vector<unsigned char> bytes;
    uint32_t bits = 0;
    int count = 0;
    for (char c : text) {
        const char* digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        const char* at = std::strchr(digits, c);
        if (c == '=' || !at || !c) break;
        bits = (bits << 6) | static_cast<uint32_t>(at - digits);
        if ((count += 6) >= 8) bytes.push_back(static_cast<unsigned char>(bits >> (count -= 8)));
    }
    return bytes;
}

TEST(CliPage, DataKeepsEveryStrideSampleOfTheExport) {
    struct Case {
        int width, height, stride;
    };
    // Up to 1025 a side every sample; beyond, every stride-th from the first.
    const Case cases[] = {{17, 9, 1},     {1025, 3, 1}, {1026, 5, 2},
                          {1200, 701, 2}, {3073, 2, 3}, {3074, 2, 4}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        Scratch dir;
        WriteText(dir.path() / "net.json", kNetwork);
        const std::string resolution = std::to_string(c.width) + "x" + std::to_string(c.height);
        RunResult run = RunOrogen({"build", "net.json", "-o", "out", "--html", "--format", "r32",
                                   "--resolution", resolution, "-q"},
                                  dir.path());
        ASSERT_EQ(run.code, 0) << run.err;
        const fs::path out = dir.path() / "out";
        EXPECT_TRUE(fs::is_regular_file(out / "index.html"));
        EXPECT_TRUE(fs::is_regular_file(out / "page" / "main.js"));
        for (const char* name : {"cone", "ramp"}) {
            const std::string script = ReadText(out / "data" / (std::string(name) + ".js"));
            const std::string prefix = "OrogenData(\"" + std::string(name) + "\",";
            ASSERT_EQ(script.compare(0, prefix.size(), prefix), 0) << script.substr(0, 80);
            const size_t headEnd = script.find("},\"");
            const json head =
                json::parse(script.substr(prefix.size(), headEnd + 1 - prefix.size()));
            const int width = (c.width - 1) / c.stride + 1, height = (c.height - 1) / c.stride + 1;
            EXPECT_EQ(
                head,
                (json{
                    {"width", width}, {"height", height}, {"channels", 1}, {"stride", c.stride}}));
            const std::vector<unsigned char> bytes =
                FromBase64(script.substr(headEnd + 3, script.rfind('"') - headEnd - 3));
            ASSERT_EQ(bytes.size(), sizeof(float) * width * height);
            const basekit::host::Image file =
                basekit::host::ReadR32(out / (std::string(name) + ".r32"), c.width, c.height);
            int wrong = 0;
            for (int y = 0; y < height; ++y)
                for (int x = 0; x < width; ++x) {
                    float kept;
                    std::memcpy(&kept, &bytes[(static_cast<size_t>(y) * width + x) * sizeof(float)],
                                sizeof kept);
                    float expected =
                        file.samples[static_cast<size_t>(y) * c.stride * c.width + x * c.stride];
                    wrong += std::memcmp(&kept, &expected, sizeof kept) != 0;
                }
            EXPECT_EQ(wrong, 0);
            if (!basekit::host::CanReadPng()) continue;  // a build that only writes PNGs
            const basekit::host::Image thumb =
                basekit::host::ReadImage(out / "data" / (std::string(name) + ".png"));
            EXPECT_EQ(thumb.channels, 3);
            EXPECT_LE(std::max(thumb.width, thumb.height), 256);
            EXPECT_GE(thumb.width, std::min(width, 128));
        }
        const std::string manifest = ReadText(out / "data" / "manifest.js");
        EXPECT_NE(manifest.find("\"extent\":[0.0,0.0,4.0,2.0]"), std::string::npos) << manifest;
        EXPECT_NE(manifest.find("\"verticalScale\":0.25"), std::string::npos);
        EXPECT_NE(manifest.find("\"page\":{\"stride\":" + std::to_string(c.stride)),
                  std::string::npos);
    }
}

TEST(CliPage, ServeRefusesBadOptionsBeforeListening) {
    Scratch dir;
    WriteText(dir.path() / "net.json", kNetwork);
    const std::vector<std::vector<std::string>> bad = {
        {"serve", "net.json", "--preview-resolution", "0x5"},
        {"serve", "net.json", "--port", "70000"},
        {"serve"},
    };
    for (const auto& args : bad) {
        RunResult run = RunOrogen(args, dir.path());
        EXPECT_EQ(run.code, 2) << args.back() << ": " << run.err;
        EXPECT_FALSE(fs::exists(dir.path() / "out"));
    }
}

}  // namespace
}  // namespace orogen::testing
