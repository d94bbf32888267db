// orogen build: files read back and checked against the ramp and cone
// formulas, the manifest, exit code 3 on a failed or disabled device, and save
// round trips.

#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli_support.h"
#include "host/ImageIO.h"

namespace orogen::testing {
namespace {

using basekit::host::Image;
using json = nlohmann::json;

// 17 x 9 samples over [-1, 3] x [0, 2]: 0.25 world units per sample.
const char* const kGenerators = R"({
  "world": {"extent": [-1, 0, 3, 2], "resolution": [17, 9]},
  "devices": [
    {"id": "ramp", "type": "Gradient", "anchor": [0.25, 0.5],
     "params": {"Direction": 0, "Width": 1, "Tiling": "None"}},
    {"id": "zigzag", "type": "GRAD", "anchor": [0, 0],
     "params": {"Width": 0.5, "Tiling": "Linear"}},
    {"id": "cone", "type": "Radial Grad", "anchor": [1, 1],
     "params": {"Radius": 3, "Type": "Cone"}}
  ],
  "export": [
    {"device": "ramp", "name": "ramp"},
    {"device": "zigzag", "name": "zigzag"},
    {"device": "cone", "name": "cone"}
  ]
})";

double WorldX(int i) { return -1.0 + 4.0 * i / 16.0; }
double WorldY(int j) { return 2.0 * j / 8.0; }
double Clamp01(double v) { return v < 0 ? 0 : (v > 1 ? 1 : v); }

// The three exports as the formulas give them.
double Expected(const std::string& name, int i, int j) {
    double x = WorldX(i), y = WorldY(j);
    if (name == "ramp") return Clamp01(x - 0.25 + 0.5);
    if (name == "zigzag") {
        double t = x / 0.5 + 0.5;
        double s = t - 2.0 * std::floor(t / 2.0);
        return s > 1.0 ? 2.0 - s : s;
    }
    double d = std::hypot(x - 1.0, y - 1.0);  // cone of radius 1.5
    return d < 1.5 ? 1.0 - d / 1.5 : 0.0;
}

TEST(CliBuild, ExportsAndManifestMatchTheFormulasInEveryFormat) {
    Scratch dir;
    WriteText(dir / "net.json", kGenerators);
    RunResult run = RunOrogen({"build", "net.json", "-o", "out", "--threads", "2"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.err, "");  // no progress bar off a terminal
    EXPECT_NE(run.out.find("built"), std::string::npos) << run.out;

    for (const std::string name : {"ramp", "zigzag", "cone"}) {
        SCOPED_TRACE(name);
        // By default a build writes every format it can; the formats it cannot
        // read back are checked only for being there.
        Image raw = basekit::host::ReadR32(dir / "out" / (name + ".r32"), 17, 9, 1);
        ASSERT_TRUE(fs::is_regular_file(dir / "out" / (name + ".png")));
        const bool exr = basekit::host::CanUseExr(), png = basekit::host::CanReadPng();
        EXPECT_EQ(fs::exists(dir / "out" / (name + ".exr")), exr);
        Image fromExr = exr ? basekit::host::ReadExr(dir / "out" / (name + ".exr")) : raw;
        Image fromPng = png ? basekit::host::ReadPng(dir / "out" / (name + ".png")) : raw;
        ASSERT_EQ(fromPng.width, 17);
        ASSERT_EQ(fromPng.height, 9);
        ASSERT_EQ(fromPng.channels, 1);
        ASSERT_EQ(fromExr.channels, 1);
        ASSERT_EQ(fromExr.samples.size(), raw.samples.size());
        for (int j = 0; j < 9; ++j) {
            for (int i = 0; i < 17; ++i) {
                size_t at = static_cast<size_t>(j) * 17 + i;
                double want = Expected(name, i, j);
                ASSERT_NEAR(raw.samples[at], want, 2e-6) << i << "," << j;
                EXPECT_EQ(fromExr.samples[at], raw.samples[at]);  // EXR keeps floats exactly
                EXPECT_NEAR(fromPng.samples[at], raw.samples[at], 0.5 / 65535.0 + 1e-7);  // 16 bits
            }
        }
    }

    json manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
    ASSERT_EQ(manifest["outputs"].size(), 3u);
    for (const json& output : manifest["outputs"]) {
        std::string name = output["name"];
        SCOPED_TRACE(name);
        EXPECT_EQ(output["device"], name);
        EXPECT_EQ(output["output"], 0);
        EXPECT_EQ(output["kind"], "heightfield");
        EXPECT_EQ(output["width"], 17);
        EXPECT_EQ(output["height"], 9);
        EXPECT_EQ(output["mask"], false);
        json files = {{"r32", name + ".r32"}, {"hdr", name + ".hdr"}, {"png", name + ".png"}};
        if (basekit::host::CanUseExr()) files["exr"] = name + ".exr";
        EXPECT_EQ(output["files"], files);
        double low = 2, high = -1;
        for (int j = 0; j < 9; ++j)
            for (int i = 0; i < 17; ++i) {
                low = std::min(low, Expected(name, i, j));
                high = std::max(high, Expected(name, i, j));
            }
        EXPECT_NEAR(output["min"].get<double>(), low, 2e-6);
        EXPECT_NEAR(output["max"].get<double>(), high, 2e-6);
        EXPECT_GE(output["seconds"].get<double>(), 0.0);
    }
    EXPECT_FALSE(manifest.contains("missing"));
    EXPECT_EQ(manifest["world"], json::parse(R"({"extent": [-1.0, 0.0, 3.0, 2.0],
                                                 "resolution": [17, 9], "verticalScale": 1.0})"));
    ASSERT_EQ(manifest["devices"].size(), 3u);
    const char* types[] = {"Gradient", "Gradient", "Radial Grad"};
    for (size_t k = 0; k < 3; ++k) {
        EXPECT_EQ(manifest["devices"][k]["status"], "built");
        EXPECT_EQ(manifest["devices"][k]["type"], types[k]);
        EXPECT_GE(manifest["devices"][k]["seconds"].get<double>(), 0.0);
        // At least its own field was held while it built.
        EXPECT_GE(manifest["devices"][k]["peakBytes"].get<uint64_t>(), 17u * 9u * 4u);
    }
}

// Outputs read by two devices, by one only, exported or not: handed over or
// copied, paged out or not, the files are the same bytes; a Voronoi without a
// seed of its own takes the network's. --seed and --set change what they say.
TEST(CliBuild, StreamedExportsAreTheSameOnEveryThreadCountAndBudget) {
    Scratch dir;
    WriteText(dir / "net.json", R"json({
  "world": {"extent": [0, 0, 2, 2], "resolution": [97, 65]},
  "seed": 5,
  "devices": [
    {"id": "ramp", "type": "Gradient", "params": {"Direction": 30}},
    {"id": "cells", "type": "Voronoi", "params": {"Scale": 0.5}},
    {"id": "soft", "type": "Blur", "params": {"Blur type": "Gaussian", "Blur radius": 3}},
    {"id": "box", "type": "Blur", "params": {"Blur type": "Uniform (fastest)", "Blur radius": 2}},
    {"id": "streaks", "type": "Blur", "params": {"Blur type": "Motion Blur", "Blur radius": 4}},
    {"id": "warped", "type": "Voronoi",
     "params": {"Distortion Enable": true, "Distortion Amount": 0.3, "Random Seed": 4}}
  ],
  "links": [
    {"from": "cells", "to": "soft", "input": 0}, {"from": "cells", "to": "box", "input": 0},
    {"from": "soft", "to": "streaks", "input": 0}, {"from": "ramp", "to": "warped", "input": 0}
  ],
  "export": [{"device": "streaks"}, {"device": "box"}, {"device": "cells"}, {"device": "warped"}]
})json");
    const std::vector<std::vector<std::string>> runs = {
        {"--threads", "1"}, {"--threads", "3"}, {"--threads", "2", "--memory", "1K"},
        {"--threads", "2", "--seed", "5"}};
    std::vector<std::string> first;
    for (size_t r = 0; r < runs.size(); ++r) {
        const std::string out = "out" + std::to_string(r);
        std::vector<std::string> args = {"build", "net.json", "-o", out, "-q"};
        args.insert(args.end(), runs[r].begin(), runs[r].end());
        RunResult run = RunOrogen(args, dir.path());
        ASSERT_EQ(run.code, 0) << run.err;
        std::vector<std::string> files = ListFolder(dir / out);  // no swap folder left
        ASSERT_EQ(files.size(), 4 * (basekit::host::CanUseExr() ? 4 : 3) + 1u);  // .hdr too
        if (r == 0) first = files;
        ASSERT_EQ(files, first);
        for (const std::string& file : files) {
            if (file == "manifest.json" || r == 0) continue;
            EXPECT_TRUE(ReadText(dir / out / file) == ReadText(dir / "out0" / file))
                << file << " differs with " << runs[r][1] << " threads";
        }
    }
#ifndef _WIN32
    // No thread to be had: warnings, then the same files on one thread.
    if (const std::string launcher = ThreadlessLauncher(); !launcher.empty()) {
        fs::permissions(dir.path(), fs::perms::all, fs::perm_options::add);
        // The leak checker needs a thread of its own.
        RunResult run = RunOrogen({"build", "net.json", "-o", "threadless", "-q", "--threads", "4"},
                                  dir.path(), "BASEKIT64_MODULE= ASAN_OPTIONS=detect_leaks=0", launcher);
        ASSERT_EQ(run.code, 0) << run.err;
        for (const char* says : {"worker threads could be started", "export threads could be started"})
            EXPECT_NE(run.err.find(says), std::string::npos) << run.err;
        ASSERT_EQ(ListFolder(dir / "threadless"), first);
        for (const std::string& file : first) {
            if (file == "manifest.json") continue;
            EXPECT_TRUE(ReadText(dir / "threadless" / file) == ReadText(dir / "out0" / file)) << file;
        }
    }
#endif
    // What each option changes, and what it leaves.
    const struct {
        std::vector<std::string> args;
        std::vector<std::string> changed, kept;
    } options[] = {
        {{"--seed", "6"}, {"cells.r32", "box.r32"}, {"warped.r32"}},
        {{"--set", "cells.Scale=0.25"}, {"cells.r32", "streaks.r32"}, {"warped.r32"}},
        {{"--set", "warped.Random Seed=4", "--set", "cells.Style=F2"},
         {"cells.r32"},
         {"warped.r32"}},
        {{"--set", "ramp.Direction=60"}, {"warped.r32"}, {"cells.r32", "box.r32"}},
    };
    for (const auto& option : options) {
        SCOPED_TRACE(option.args[1]);
        std::vector<std::string> args = {"build", "net.json", "-o", "other", "-q", "--format", "r32"};
        args.insert(args.end(), option.args.begin(), option.args.end());
        RunResult run = RunOrogen(args, dir.path());
        ASSERT_EQ(run.code, 0) << run.err;
        for (const std::string& file : option.changed)
            EXPECT_NE(ReadText(dir / "other" / file), ReadText(dir / "out0" / file)) << file;
        for (const std::string& file : option.kept)
            EXPECT_EQ(ReadText(dir / "other" / file), ReadText(dir / "out0" / file)) << file;
    }
}

TEST(CliBuild, ResolutionAndFormatOptions) {
    Scratch dir;
    WriteText(dir / "net.json", kGenerators);
    RunResult run = RunOrogen({"build", "net.json", "-o", "out", "--format", "r32", "--resolution", "33x5", "-q"},
                              dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    EXPECT_EQ(run.out, "");  // --quiet
    EXPECT_EQ(ListFolder(dir / "out"),
              (std::vector<std::string>{"cone.hdr", "cone.r32", "manifest.json", "ramp.hdr",
                                        "ramp.r32", "zigzag.hdr", "zigzag.r32"}));
    json manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
    EXPECT_EQ(manifest["outputs"][0]["width"], 33);
    EXPECT_EQ(manifest["outputs"][0]["height"], 5);
    Image ramp = basekit::host::ReadR32(dir / "out" / "ramp.r32", 33, 5, 1);
    // Same world, finer columns: 0.125 units apart; every row alike.
    for (int j = 0; j < 5; ++j)
        for (int i = 0; i < 33; ++i)
            EXPECT_NEAR(ramp.samples[j * 33 + i], Clamp01(-1.0 + 0.125 * i + 0.25), 2e-6) << i << "," << j;
}

// r16 and PNG by the field's own range, a GeoTIFF placed on the world, an
// ENVI header, the EXR channel named, and a File Input resampled with a note.
TEST(CliBuild, SixteenBitRangesGeoTiffAndResampledInput) {
    Scratch dir;
    basekit::host::WriteR32(dir / "dem.r32",
                            Image{3, 3, 1, {0, 0.5f, 1, 0.25f, 0.75f, 0.125f, 0, 0, 0}});
    json network = json::parse(kGenerators);
    network["devices"].push_back({{"id", "dem"}, {"type", "File Input"}, {"file", "dem.r32"}});
    network["export"].push_back({{"device", "dem"}, {"name", "dem"}});
    WriteText(dir / "net.json", network.dump());
    const bool tif = basekit::host::CanUseTiff(), exr = basekit::host::CanUseExr();
    std::string formats = "r32,r16,png";
    if (tif) formats += ",tif";
    if (exr) formats += ",exr";
    for (const char* range : {"auto", "fixed"}) {
        SCOPED_TRACE(range);
        const std::string out = std::string("out-") + range;
        RunResult run = RunOrogen({"build", "net.json", "-o", out, "--format", formats,
                                   "--png-range", range, "--exr-channel", "Z"},
                                  dir.path());
        ASSERT_EQ(run.code, 0) << run.err;
        EXPECT_NE(run.out.find("resampled from 3 x 3 to 17 x 9 (bilinear)"), std::string::npos)
            << run.out;
        json manifest = json::parse(ReadText(dir / out / "manifest.json"));
        EXPECT_EQ(manifest["devices"][3]["message"], "resampled from 3 x 3 to 17 x 9 (bilinear)");
        for (const json& output : manifest["outputs"]) {
            const std::string name = output["name"];
            SCOPED_TRACE(name);
            const fs::path base = dir / out / name;
            const Image raw = basekit::host::ReadR32(base.string() + ".r32", 17, 9, 1);
            const double low = output["min"], high = output["max"];
            const bool stretched = std::string(range) == "auto";
            const json used = stretched ? json::array({output["min"], output["max"]})
                                        : json::array({0.0, 1.0});
            EXPECT_EQ(output["pngRange"], used);
            const Image r16 = basekit::host::ReadR16(base.string() + ".r16", 17, 9, 1);
            for (size_t i = 0; i < raw.samples.size(); ++i) {
                const double t = stretched ? (raw.samples[i] - low) / (high - low)
                                           : Clamp01(raw.samples[i]);
                ASSERT_EQ(r16.samples[i], float(std::round(t * 65535.0)) / 65535.0f) << i;
            }
            if (basekit::host::CanReadPng()) {
                EXPECT_EQ(basekit::host::ReadPng(base.string() + ".png").samples, r16.samples);
            }
            const std::string header = ReadText(base.string() + ".hdr");
            EXPECT_NE(header.find("samples = 17\nlines = 9\nbands = 1\n"), std::string::npos);
            EXPECT_NE(header.find("map info = {Arbitrary, 1.5, 1.5, -1, 0, 0.25, -0.25}"),
                      std::string::npos)
                << header;
            if (tif) {
                const Image fromTif = basekit::host::ReadTiff(base.string() + ".tif");
                EXPECT_EQ(fromTif.samples, raw.samples);
                const auto extent = basekit::host::ReadGeoExtent(base.string() + ".tif");
                ASSERT_TRUE(extent.has_value());
                EXPECT_EQ(std::vector<double>({extent->x0, extent->y0, extent->x1, extent->y1}),
                          std::vector<double>({-1, 0, 3, 2}));
            }
            if (exr) {
                EXPECT_EQ(basekit::host::ReadExr(base.string() + ".exr").samples, raw.samples);
                const std::string bytes = ReadText(base.string() + ".exr");
                EXPECT_NE(bytes.find(std::string("chlist\0", 7)), std::string::npos);
                EXPECT_EQ(bytes.find(std::string("\0Y\0", 3)), std::string::npos);
            }
        }
    }
}

TEST(CliBuild, BitmapsKeepThreeChannels) {
    Scratch dir;
    Image colours{4, 3, 3, {}};
    for (int k = 0; k < 36; ++k) colours.samples.push_back(static_cast<float>(k) / 35.0f);
    basekit::host::WriteR32(dir / "colours.r32", colours);
    // A combiner fed by the picture carries a bitmap on to an export and a
    // blur (strength 0 and radius 0: the picture itself).
    WriteText(dir / "net.json", R"({
      "world": {"resolution": [4, 3]},
      "devices": [{"id": "picture", "type": "File Input", "file": "colours.r32", "kind": "bitmap"},
                  {"id": "flat", "type": "Constant"},
                  {"id": "mix", "type": "Combiner", "params": {"Strength": 0}},
                  {"id": "soft", "type": "Blur", "params": {"Blur radius": 0}}],
      "links": [{"from": "picture", "to": "mix", "input": 0}, {"from": "flat", "to": "mix", "input": 1},
                {"from": "mix", "to": "soft"}],
      "export": [{"device": "picture"}, {"device": "mix"}, {"device": "soft"}]
    })");
    RunResult run = RunOrogen({"build", "net.json", "-o", "out", "-q"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    Image raw = basekit::host::ReadR32(dir / "out" / "picture.r32", 4, 3, 3);
    EXPECT_EQ(raw.samples, colours.samples);
    for (const char* name : {"mix.r32", "soft.r32"})
        EXPECT_EQ(basekit::host::ReadR32(dir / "out" / name, 4, 3, 3).samples, colours.samples) << name;
    if (basekit::host::CanUseExr()) {
        Image exr = basekit::host::ReadExr(dir / "out" / "picture.exr");
        EXPECT_EQ(exr.channels, 3);
        EXPECT_EQ(exr.samples, colours.samples);
    }
    if (basekit::host::CanReadPng()) {
        Image png = basekit::host::ReadPng(dir / "out" / "picture.png");
        ASSERT_EQ(png.channels, 3);
        for (size_t k = 0; k < 36; ++k) EXPECT_NEAR(png.samples[k], colours.samples[k], 0.5 / 65535.0 + 1e-7);
    }
    json manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
    ASSERT_EQ(manifest["outputs"].size(), 3u);
    for (size_t k = 0; k < 3; ++k) EXPECT_EQ(manifest["outputs"][k]["kind"], "bitmap") << k;
    EXPECT_EQ(manifest["outputs"][0]["name"], "picture");
}

// A disabled or failed device gives exit code 3, its export missing and the
// previous files kept.
TEST(CliBuild, DisabledOrFailedDeviceGivesExitThree) {
    Scratch dir;
    Image field{5, 4, 1, {}};
    for (int k = 0; k < 20; ++k) field.samples.push_back(static_cast<float>(k) / 19.0f);
    basekit::host::WriteR32(dir / "input.r32", field);
    WriteText(dir / "net.json", R"({
      "world": {"resolution": [5, 4]},
      "devices": [
        {"id": "hill", "type": "Radial Grad"},
        {"id": "scan", "type": "File Input", "file": "input.r32"},
        {"id": "off", "type": "Constant", "enabled": false}
      ]
    })");
    RunResult run = RunOrogen({"build", "net.json", "-o", "out", "-q"}, dir.path());
    EXPECT_EQ(run.code, 3) << run.err;
    json manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
    EXPECT_EQ(manifest["devices"][2]["status"], "disabled");
    ASSERT_EQ(manifest["missing"].size(), 1u);
    EXPECT_EQ(manifest["missing"][0]["device"], "off");
    EXPECT_FALSE(fs::exists(dir / "out" / "off.r32"));
    std::string text = ReadText(dir / "net.json");
    WriteText(dir / "net.json", text.replace(text.find(", \"enabled\": false"), 18, ""));
    run = RunOrogen({"build", "net.json", "-o", "out", "-q"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    std::string goodScan = ReadText(dir / "out" / "scan.r32");
    std::string goodPng = ReadText(dir / "out" / "scan.png");
    // What the build does not own stays, temporaries of the user included.
    WriteText(dir / "out" / "notes.tmp-1", "mine");
    fs::create_directory(dir / "out" / ".orogen-staging-notes");
    WriteText(dir / "out" / "old.r32", "old");
    std::vector<std::string> goodListing = ListFolder(dir / "out");
    // A killed build's staging folder (its process is gone) is removed.
    fs::create_directory(dir / "out" / ".orogen-staging-4194305-1");
    WriteText(dir / "out" / ".orogen-staging-4194305-1" / "hill.r32", "half");
    // One killed while moving into place: what it moved in goes, what it
    // moved aside comes back.
    const fs::path moving = dir / "out" / ".orogen-staging-4194305-2";
    fs::create_directories(moving / ".previous");
    WriteText(moving / ".moving.json", R"({"added": ["notes.tmp-1", "scan.png"], "removed": ["old.r32"]})");
    fs::rename(dir / "out" / "notes.tmp-1", moving / ".previous" / "notes.tmp-1");
    WriteText(dir / "out" / "notes.tmp-1", "new");
    fs::rename(dir / "out" / "old.r32", moving / ".previous" / "old.r32");
    WriteText(moving / "scan.png", "not moved yet");

    // The input goes away: that device fails, the other still builds.
    fs::remove(dir / "input.r32");
    run = RunOrogen({"build", "net.json", "-o", "out", "-q"}, dir.path());
    EXPECT_EQ(run.code, 3);
    EXPECT_NE(run.err.find("\"scan\""), std::string::npos) << run.err;
    EXPECT_EQ(ReadText(dir / "out" / "scan.r32"), goodScan);
    EXPECT_EQ(ReadText(dir / "out" / "scan.png"), goodPng);
    EXPECT_EQ(ListFolder(dir / "out"), goodListing);  // no temporary left behind
    EXPECT_EQ(ReadText(dir / "out" / "notes.tmp-1"), "mine");
    EXPECT_EQ(ReadText(dir / "out" / "old.r32"), "old");

    manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
    ASSERT_EQ(manifest["outputs"].size(), 2u);
    EXPECT_EQ(manifest["outputs"][0]["name"], "hill");
    ASSERT_EQ(manifest["missing"].size(), 1u);
    EXPECT_EQ(manifest["missing"][0]["name"], "scan");
    EXPECT_NE(manifest["missing"][0]["reason"].get<std::string>().find("input.r32"), std::string::npos);
    // The old files of the missing export stay, marked as not of this build.
    std::vector<std::string> stale;
    for (const json& file : manifest["missing"][0]["stale"]) stale.push_back(file);
    EXPECT_EQ(stale, basekit::host::CanUseExr()
                         ? (std::vector<std::string>{"scan.png", "scan.r32", "scan.exr"})
                         : (std::vector<std::string>{"scan.png", "scan.r32"}));
    EXPECT_EQ(manifest["devices"][0]["status"], "built");
    EXPECT_EQ(manifest["devices"][1]["status"], "failed");
    EXPECT_TRUE(manifest["devices"][1].contains("message"));
}

#ifndef _WIN32
// Ctrl-C in the middle of a long build: exit 130 and the folder as it was.
TEST(CliBuild, InterruptedBuildLeavesTheFolderAsItWas) {
    Scratch dir;
    WriteText(dir / "net.json", R"({"world": {"resolution": [2049, 2049]},
      "devices": [{"id": "cells", "type": "Voronoi"},
                  {"id": "snow", "type": "Snow", "params": {"Snow Amount": 100}}],
      "links": [{"from": "cells", "to": "snow", "input": 0}], "export": [{"device": "snow"}]})");
    ASSERT_EQ(RunOrogen({"build", "net.json", "-o", "out", "-q", "--resolution", "33x33"}, dir.path()).code, 0);
    const auto contents = [&] {
        std::vector<std::string> files = ListFolder(dir / "out");
        for (std::string& file : files) file += ": " + ReadText(dir / "out" / file);
        return files;
    };
    const std::vector<std::string> before = contents();
    // Signalled once its staging folder shows that the build has begun.
    const std::string script =
        "cd " + Quote(dir.path().string()) + " || exit 1; env BASEKIT64_MODULE= " + Quote(OrogenPath().string()) +
        " build net.json -o out -q 2>/dev/null & pid=$!; i=0; "
        "while [ $i -lt 400 ] && ! ls -d out/.orogen-staging-* >/dev/null 2>&1; do sleep 0.05; i=$((i+1)); done; "
        "sleep 0.2; kill -INT $pid; wait $pid";
    const int status = std::system(("sh -c " + Quote(script)).c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 130);
    EXPECT_TRUE(contents() == before);
}
#endif

// The exit codes of the README's table: a device that fails makes 3 even
// where no export reads it, a disabled one only where its export is missing;
// --keep-going makes 0 of both, and the exports that could be written are.
TEST(CliBuild, ExitCodesFollowTheDevicesAndKeepGoing) {
    Scratch dir;
    const std::string kept = R"("world": {"resolution": [5, 4]}, "devices": [
        {"id": "hill", "type": "Radial Grad"}, {"id": "off", "type": "Constant", "enabled": false})";
    const std::string devices = kept + R"(, {"id": "scan", "type": "File Input", "file": "absent.r32"}])";
    const struct {
        const char* what;
        const char* exports;
        std::vector<std::string> args;
        int code;
        const char* says;  // on standard error
    } cases[] = {
        {"all built", R"([{"device": "hill"}])", {}, 0, ""},
        {"a failed device exported", R"([{"device": "hill"}, {"device": "scan"}])", {}, 3,
         "export \"scan\" is missing"},
        {"a failed device, --keep-going", R"([{"device": "hill"}, {"device": "scan"}])",
         {"--keep-going"}, 0, "export \"scan\" is missing"},
        {"a disabled device exported", R"([{"device": "hill"}, {"device": "off"}])", {}, 3,
         "export \"off\" is missing"},
        {"a disabled device, --keep-going", R"([{"device": "off"}, {"device": "hill"}])",
         {"--keep-going"}, 0, "export \"off\" is missing"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        // Without "scan" among the devices for the first case.
        const bool clean = c.code == 0 && c.args.empty();
        std::string text = "{" + (clean ? kept + "]" : devices) + ", \"export\": " + c.exports + "}";
        WriteText(dir / "net.json", text);
        std::vector<std::string> args = {"build", "net.json", "-o", "out", "-q", "--format", "r32"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        fs::remove_all(dir / "out");
        RunResult run = RunOrogen(args, dir.path());
        EXPECT_EQ(run.code, c.code) << run.err;
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
        EXPECT_TRUE(fs::exists(dir / "out" / "hill.r32"));
    }
    // A failed device that no export reads is named on its own.
    WriteText(dir / "net.json", "{" + devices + R"(, "export": [{"device": "hill"}]})");
    RunResult run = RunOrogen({"build", "net.json", "-o", "out", "-q"}, dir.path());
    EXPECT_EQ(run.code, 3);
    EXPECT_NE(run.err.find("device \"scan\" failed"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("\"off\""), std::string::npos) << run.err;
    EXPECT_EQ(RunOrogen({"build", "net.json", "-o", "out", "-q", "--keep-going"}, dir.path()).code, 0);
}

// --clean removes what the previous manifest lists and this build does not
// write: never a file it does not list, one outside the folder, a folder or a
// link, nor the last files of an export that is missing now.
TEST(CliBuild, CleanRemovesOnlyThePreviousBuildsLeftovers) {
    Scratch dir;
    Image field{5, 4, 1, std::vector<float>(20, 0.5f)};
    basekit::host::WriteR32(dir / "input.r32", field);
    WriteText(dir / "net.json", R"({"world": {"resolution": [5, 4]}, "devices": [
        {"id": "hill", "type": "Radial Grad"}, {"id": "flat", "type": "Constant"},
        {"id": "scan", "type": "File Input", "file": "input.r32"}]})");
    RunResult run = RunOrogen({"build", "net.json", "-o", "out", "-q", "--format", "png,r32"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    // Names the manifest should never have held, and files it never listed.
    WriteText(dir / "victim.txt", "keep");
    WriteText(dir / "out" / "notes.txt", "keep");
    fs::create_directory(dir / "out" / "folder");
    std::error_code noLinks;  // some Windows setups make none: the case is then left out
    fs::create_symlink(dir / "victim.txt", dir / "out" / "link.txt", noLinks);
    json manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
    manifest["outputs"][0]["files"]["x1"] = "../victim.txt";
    manifest["outputs"][0]["files"]["x2"] = "folder";
    manifest["outputs"][0]["files"]["x3"] = "link.txt";
    WriteText(dir / "out" / "manifest.json", manifest.dump());

    // "flat" is gone and "scan" fails: only flat's files go, and only with --clean.
    fs::remove(dir / "input.r32");
    WriteText(dir / "net.json", R"({"world": {"resolution": [5, 4]}, "devices": [
        {"id": "hill", "type": "Radial Grad"}, {"id": "scan", "type": "File Input", "file": "input.r32"}]})");
    const std::vector<std::string> before = ListFolder(dir / "out");
    const struct {
        std::vector<std::string> args;
        std::vector<std::string> gone;
    } cases[] = {
        {{"--format", "r32"}, {}},
        {{"--format", "r32", "--clean"}, {"flat.hdr", "flat.png", "flat.r32", "hill.png"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args.size());
        std::vector<std::string> args = {"build", "net.json", "-o", "out", "-q"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        run = RunOrogen(args, dir.path());
        EXPECT_EQ(run.code, 3) << run.err;
        std::vector<std::string> want;
        for (const std::string& name : before)
            if (std::find(c.gone.begin(), c.gone.end(), name) == c.gone.end()) want.push_back(name);
        EXPECT_EQ(ListFolder(dir / "out"), want);
        EXPECT_EQ(ReadText(dir / "victim.txt"), "keep");
        if (!c.gone.empty()) {
            EXPECT_EQ(json::parse(ReadText(dir / "out" / "manifest.json"))["removed"], json(c.gone));
        }
        // Put the listing back for the next case.
        WriteText(dir / "out" / "manifest.json", manifest.dump());
    }
}

// A router sends its input to one output: exports of the others are missing
// with exit code 3, and so is the export of a device that read nothing.
TEST(CliBuild, RouterOutputsThatReceiveNothingAreMissing) {
    Scratch dir;
    WriteText(dir / "net.json", R"({
      "world": {"resolution": [6, 5]},
      "devices": [
        {"id": "hill", "type": "Radial Grad"},
        {"id": "r", "type": "Router", "params": {"Output Choice": 1, "Number of Outputs": 3}},
        {"id": "soft", "type": "Blur"}
      ],
      "links": [{"from": "hill", "to": "r"}, {"from": "r", "output": 2, "to": "soft"}],
      "export": [{"device": "r", "output": 0}, {"device": "r", "output": 1},
                 {"device": "r", "output": 2}, {"device": "soft"}]
    })");
    RunResult run =
        RunOrogen({"build", "net.json", "-o", "out", "-q", "--format", "r32"}, dir.path());
    EXPECT_EQ(run.code, 3) << run.err;
    json manifest = json::parse(ReadText(dir / "out" / "manifest.json"));
    ASSERT_EQ(manifest["outputs"].size(), 1u);
    EXPECT_EQ(manifest["outputs"][0]["name"], "r_1");
    EXPECT_TRUE(fs::exists(dir / "out" / "r_1.r32"));
    const struct {
        const char* name;
        const char* reason;
    } missing[] = {{"r_0", "output 0 of \"r\" holds nothing"},
                   {"r_2", "output 2 of \"r\" holds nothing"},
                   {"soft", "received nothing: output 2 of \"r\" holds no packet"}};
    ASSERT_EQ(manifest["missing"].size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(manifest["missing"][i]["name"], missing[i].name);
        const std::string reason = manifest["missing"][i]["reason"];
        EXPECT_NE(reason.find(missing[i].reason), std::string::npos) << reason;
        EXPECT_NE(run.err.find(reason), std::string::npos) << run.err;
    }
}

// Every kind of device the module offers today, a distortion input enabled
// by a setting, and settings away from their defaults.
const char* const kChain = R"({
  "world": {"extent": [0, 0, 2, 2], "resolution": [65, 49]},
  "devices": [
    {"id": "ramp", "type": "Gradient", "anchor": [0.25, 0.5],
     "params": {"Direction": 75, "Width": 0.7, "Tiling": "Discontinuous"}},
    {"id": "zigzag", "type": "GRAD", "params": {"Width": 0.5, "Tiling": "Linear"}},
    {"id": "cone", "type": "Radial Grad", "anchor": [1, 1], "params": {"Radius": 1.5, "Type": "Cone"}},
    {"id": "cells", "type": "Voronoi",
     "params": {"Scale": 0.4, "Style": "F2 - F1", "Distortion Enable": true,
                "Distortion Amount": 0.5, "Random Seed": 321}},
    {"id": "smooth", "type": "Blur", "params": {"Blur radius": 12}},
    {"id": "flat", "type": "Constant", "params": {"Height": 0.25}}
  ],
  "links": [
    {"from": "cone", "to": "cells", "input": 0},
    {"from": "cells", "to": "smooth", "input": 0}
  ]
})";

// Settings that add an input are applied before the links; a saved network
// builds the same bits.
TEST(CliSave, SettingsBeforeLinksAndRoundTripBuildsTheSameBits) {
    Scratch dir;
    WriteText(dir / "net.json", kChain);
    auto build = [&](const char* file, const char* out, std::vector<std::string> more = {}) {
        std::vector<std::string> args = {"build", file, "-o", out, "--format", "r32", "-q"};
        args.insert(args.end(), more.begin(), more.end());
        RunResult run = RunOrogen(args, dir.path());
        EXPECT_EQ(run.code, 0) << run.err;
    };
    build("net.json", "a");
    json manifest = json::parse(ReadText(dir / "a" / "manifest.json"));
    for (const json& device : manifest["devices"]) EXPECT_EQ(device["status"], "built") << device;
    // Without the link the distorted cells would match an undistorted build.
    std::string plain = kChain;
    plain.replace(plain.find("\"Distortion Enable\": true"), 25, "\"Distortion Enable\": false");
    plain.replace(plain.find("{\"from\": \"cone\", \"to\": \"cells\", \"input\": 0},"), 47, "");
    WriteText(dir / "plain.json", plain);
    build("plain.json", "plain");
    EXPECT_NE(ReadText(dir / "a" / "smooth.r32"), ReadText(dir / "plain" / "smooth.r32"));
    EXPECT_EQ(ReadText(dir / "a" / "ramp.r32"), ReadText(dir / "plain" / "ramp.r32"));

    RunResult run = RunOrogen({"save", "net.json", "-o", "saved.json"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    json saved = json::parse(ReadText(dir / "saved.json"));
    ASSERT_EQ(saved["devices"].size(), 6u);
    for (const json& device : saved["devices"]) {
        ASSERT_TRUE(device.contains("state"));
        EXPECT_FALSE(device["state"].get<std::string>().empty());
    }
    // The saved file loads as the original did.
    run = RunOrogen({"save", "saved.json", "-o", "again.json"}, dir.path());
    ASSERT_EQ(run.code, 0) << run.err;
    json again = json::parse(ReadText(dir / "again.json"));
    EXPECT_EQ(again["links"], saved["links"]);
    EXPECT_EQ(again["world"], saved["world"]);
    build("saved.json", "b");
    EXPECT_EQ(ListFolder(dir / "a"), ListFolder(dir / "b"));
    for (const char* name : {"ramp.r32", "zigzag.r32", "smooth.r32", "flat.r32"}) {
        std::string a = ReadText(dir / "a" / name);
        EXPECT_FALSE(a.empty());
        EXPECT_EQ(a, ReadText(dir / "b" / name)) << name;
    }
    // --set and --seed are saved into the file: it builds as the original with them.
    const std::vector<std::string> tuned = {"--set", "cone.Radius=0.5", "--seed", "9"};
    std::vector<std::string> args = {"save", "net.json", "-o", "tuned.json"};
    args.insert(args.end(), tuned.begin(), tuned.end());
    ASSERT_EQ(RunOrogen(args, dir.path()).code, 0);
    build("net.json", "c", tuned);
    build("tuned.json", "d");
    EXPECT_NE(ReadText(dir / "c" / "smooth.r32"), ReadText(dir / "a" / "smooth.r32"));
    for (const char* name : {"ramp.r32", "zigzag.r32", "smooth.r32", "flat.r32"})
        EXPECT_EQ(ReadText(dir / "c" / name), ReadText(dir / "d" / name)) << name;
}

}  // namespace
}  // namespace orogen::testing
