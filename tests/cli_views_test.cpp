// Overlay Views in orogen builds: every view is written, and the first one
// in network order is the preview instead of orogen's own shading.

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>

#include "cli_support.h"
#include "host/ImageIO.h"

namespace orogen::testing {
namespace {

using json = nlohmann::json;

TEST(CliViews, TheFirstViewIsThePreviewAndEveryViewIsWritten) {
    Scratch dir;
    // "hill" is listed first, so without the views it would be the preview;
    // "shown" feeds a splitter and is written all the same.
    WriteText(dir / "net.json", R"({
      "world": {"resolution": [33, 17]},
      "globals": {"lightDirection": [1, 1, 1]},
      "devices": [{"id": "hill", "type": "Radial Grad", "params": {"Radius": 0.6}},
                  {"id": "splat", "type": "Splat Converter"},
                  {"id": "shown", "type": "Overlay View", "params": {"Shading": 0.8}},
                  {"id": "split", "type": "Channel Splitter"},
                  {"id": "plain", "type": "Overlay View"}],
      "links": [{"from": "hill", "to": "splat"}, {"from": "hill", "to": "shown", "input": 0},
                {"from": "splat", "to": "shown", "input": 1}, {"from": "shown", "to": "split"},
                {"from": "hill", "to": "plain"}],
      "export": [{"device": "hill"}]
    })");
    RunResult run = RunOrogen(
        {"build", "net.json", "-o", "out", "-q", "--preview", "--format", "r32"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    json manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
    std::vector<std::string> names;
    for (const json& o : manifest["outputs"]) names.push_back(o["name"]);
    EXPECT_EQ(names, (std::vector<std::string>{"hill", "shown", "plain"}));
    EXPECT_EQ(manifest["outputs"][1]["kind"], "bitmap");
    EXPECT_EQ(manifest["preview"]["of"], "shown");
    if (!basekit::host::CanReadPng()) GTEST_SKIP() << "no PNG reader";
    // The preview is the view in eight bits.
    const basekit::host::Image view = basekit::host::ReadR32(dir / "out" / "shown.r32", 33, 17, 3);
    const basekit::host::Image preview = basekit::host::ReadPng(dir / "out" / "preview.png");
    ASSERT_EQ(preview.channels, 3);
    ASSERT_EQ(preview.samples.size(), view.samples.size());
    for (size_t k = 0; k < view.samples.size(); ++k)
        ASSERT_NEAR(preview.samples[k], view.samples[k], 0.5 / 255 + 1e-6) << k;
}

// --preview picks a height field before a bitmap, --preview=ID the export
// (or device) named, and says so when there is nothing to show.
TEST(CliViews, ThePreviewFollowsTheChoice) {
    Scratch dir;
    const std::string devices = R"("world": {"resolution": [9, 7]}, "devices": [
        {"id": "hill", "type": "Radial Grad"}, {"id": "tint", "type": "Colorize"},
        {"id": "off", "type": "Constant", "enabled": false}],
      "links": [{"from": "hill", "to": "tint"}])";
    const struct {
        const char* exports;
        std::string option;
        int code;
        const char* of;     // null: no preview
        const char* says;   // on standard error
    } cases[] = {
        {R"([{"device": "tint"}, {"device": "hill"}])", "--preview", 0, "hill", ""},
        {R"([{"device": "tint"}, {"device": "hill"}])", "--preview=tint", 0, "tint", ""},
        {R"([{"device": "tint", "name": "colours"}, {"device": "hill"}])", "--preview=tint", 0, "colours", ""},
        {R"([{"device": "tint"}])", "--preview", 0, "tint", ""},
        {R"([{"device": "off"}, {"device": "tint"}])", "--preview=off", 3, nullptr,
         "--preview: nothing to preview: \"off\" holds no height field or bitmap"},
        {R"([{"device": "off"}])", "--preview", 3, nullptr,
         "--preview: nothing to preview: no export holds a height field or bitmap"},
        {R"([{"device": "hill"}])", "--preview=hil", 2, nullptr,
         "--preview: no export or device \"hil\"; exports: \"hill\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.exports) + " " + c.option);
        fs::remove_all(dir / "out");
        WriteText(dir / "net.json", "{" + devices + ", \"export\": " + c.exports + "}");
        RunResult run = RunOrogen({"build", "net.json", "-o", "out", "-q", c.option, "--format", "r32"}, dir.path());
        EXPECT_EQ(run.code, c.code) << run.err;
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
        if (c.code == 2) {
            EXPECT_FALSE(fs::exists(dir / "out"));
            continue;
        }
        const json manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
        EXPECT_EQ(fs::exists(dir / "out" / "preview.png"), c.of != nullptr);
        if (c.of) {
            EXPECT_EQ(manifest["preview"]["of"], c.of);
        } else {
            EXPECT_FALSE(manifest.contains("preview"));
        }
    }
}

}  // namespace
}  // namespace orogen::testing
