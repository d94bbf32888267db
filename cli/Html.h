// The page beside a build: index.html, its scripts, three.js and the data of
// every export as scripts, so that it opens from the folder without a server.
#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "host/ImageIO.h"
#include "host/Network.h"

namespace orogen {

// Where the page's own files are: $OROGEN_WEB, else web/ beside the program
// (the build tree and an installed bin/), else ../share/orogen/web. Throws
// std::runtime_error naming the places tried.
std::filesystem::path FindWebFolder();

// Samples kept per side at most in an export's page data: a 4097 field keeps
// every fourth sample, which the browser decodes and draws in well under a second.
inline constexpr int32_t kPageDataSide = 1025;

// Every how many samples the page data keeps one: the fewest that keep at most
// kPageDataSide a side. The last sample stays where the side is a multiple of
// it plus one, as the usual 2^n + 1 sides are.
int32_t PageStride(int32_t width, int32_t height);

// Height fields in a perceptual colour ramp over [low, high] with hill
// shading, masks in grey, bitmaps as they are. `heights` is one or three
// channels; the result three channels in 0..1. `cellSize` and
// `verticalScale` give the slopes of a height field.
basekit::host::Image RenderPageImage(const basekit::host::ImageView& image, bool mask, float low,
                                     float high, double cellSize, double verticalScale);

class PageWriter {
  public:
    // `staticFiles`: also write index.html, the scripts and three.js; a
    // server writes them once and only the data after each build.
    PageWriter(std::filesystem::path dir, const basekit::host::World& world, bool staticFiles);

    // data/<name>.js (the samples kept, base64 float32) and data/<name>.png
    // (a small picture for the gallery). Safe from several threads.
    void WriteData(const std::string& name, const basekit::host::ImageView& image, bool mask);

    // data/manifest.js from the build's manifest, then the static files.
    void Finish(const nlohmann::ordered_json& manifest) const;

  private:
    std::filesystem::path dir;
    basekit::host::World world;
    bool staticFiles;
    mutable std::mutex mutex;
    std::map<std::string, nlohmann::ordered_json> pageOf;  // per export: stride, data size
};

// Copies index.html, the page's scripts and three.js into `dir`.
void WritePageFiles(const std::filesystem::path& dir);

}  // namespace orogen
