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

}  // namespace
}  // namespace orogen::testing
