#include "cli/Html.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "cli/ModuleLookup.h"

namespace orogen {

namespace fs = std::filesystem;
using basekit::host::Image;
using basekit::host::ImageView;
using json = nlohmann::ordered_json;

namespace {

// Viridis at nine even stops; page/colour.js holds the same table.
const float kRamp[9][3] = {
    {68 / 255.f, 1 / 255.f, 84 / 255.f},    {71 / 255.f, 45 / 255.f, 123 / 255.f},
    {59 / 255.f, 82 / 255.f, 139 / 255.f},  {44 / 255.f, 114 / 255.f, 142 / 255.f},
    {33 / 255.f, 145 / 255.f, 140 / 255.f}, {40 / 255.f, 174 / 255.f, 128 / 255.f},
    {94 / 255.f, 201 / 255.f, 98 / 255.f},  {173 / 255.f, 220 / 255.f, 48 / 255.f},
    {253 / 255.f, 231 / 255.f, 37 / 255.f},
};

// Side of the gallery's pictures at most.
constexpr int32_t kThumbSide = 256;

std::string Base64(const unsigned char* bytes, size_t count) {
    static const char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((count + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < count; i += 3) {
        uint32_t v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        text += kDigits[v >> 18];
        text += kDigits[(v >> 12) & 63];
        text += kDigits[(v >> 6) & 63];
        text += kDigits[v & 63];
    }
    if (i < count) {
        uint32_t v = bytes[i] << 16;
        if (i + 1 < count) v |= bytes[i + 1] << 8;
        text += kDigits[v >> 18];
        text += kDigits[(v >> 12) & 63];
        text += i + 1 < count ? kDigits[(v >> 6) & 63] : '=';
        text += '=';
    }
    return text;
}

// Every `step`-th sample of every row and column.
std::vector<float> Keep(const ImageView& image, int32_t step, int32_t& width, int32_t& height) {
    width = (image.width - 1) / step + 1;
    height = (image.height - 1) / step + 1;
    std::vector<float> kept(static_cast<size_t>(width) * height * image.channels);
    size_t at = 0;
    for (int32_t y = 0; y < height; ++y) {
        const float* row =
            image.samples + static_cast<size_t>(y) * step * image.width * image.channels;
        for (int32_t x = 0; x < width; ++x)
            for (int c = 0; c < image.channels; ++c)
                kept[at++] = row[static_cast<size_t>(x) * step * image.channels + c];
    }
    return kept;
}

void Ramp(float t, float out[3]) {
    if (!(t >= 0.0f)) t = 0.0f;  // NaN too
    t = std::min(t, 1.0f) * 8.0f;
    int k = std::min(static_cast<int>(t), 7);
    float f = t - static_cast<float>(k);
    for (int c = 0; c < 3; ++c) out[c] = kRamp[k][c] + (kRamp[k + 1][c] - kRamp[k][c]) * f;
}

}  // namespace

fs::path FindWebFolder() {
    std::vector<fs::path> tried;
    if (const char* env = std::getenv("OROGEN_WEB"); env && *env) tried.emplace_back(env);
    fs::path self = ExecutablePath();
    if (!self.empty()) {
        tried.push_back(self.parent_path() / "web");
        tried.push_back(self.parent_path().parent_path() / "share" / "orogen" / "web");
    }
    std::error_code error;
    for (const fs::path& place : tried)
        if (fs::is_regular_file(place / "index.html", error)) return place;
    std::string where;
    for (const fs::path& place : tried) where += (where.empty() ? "" : ", ") + place.string();
    throw std::runtime_error("the page's files (index.html) are in none of: " +
                             (where.empty() ? std::string("(no place known)") : where));
}

int32_t PageStride(int32_t width, int32_t height) {
    int32_t side = std::max(width, height);
    return std::max<int32_t>(1, (side - 1 + kPageDataSide - 2) / (kPageDataSide - 1));
}

Image RenderPageImage(const ImageView& image, bool mask, float low, float high, double cellSize,
                      double verticalScale) {
    Image picture{image.width, image.height, 3,
                  std::vector<float>(static_cast<size_t>(image.width) * image.height * 3)};
    const size_t count = static_cast<size_t>(image.width) * image.height;
    if (image.channels == 3) {
        for (size_t i = 0; i < count * 3; ++i)
            picture.samples[i] = std::clamp(image.samples[i], 0.0f, 1.0f);
        return picture;
    }
    if (mask) {
        for (size_t i = 0; i < count; ++i)
            for (int c = 0; c < 3; ++c)
                picture.samples[i * 3 + c] = std::clamp(image.samples[i], 0.0f, 1.0f);
        return picture;
    }
    // Light from the upper left; the slope in world units.
    const float lx = -0.5773503f, ly = -0.5773503f, lz = 0.5773503f;
    const float span = high > low ? high - low : 1.0f;
    const float rise = static_cast<float>(verticalScale / (2.0 * cellSize));
    auto at = [&](int32_t x, int32_t y) {
        x = std::clamp(x, 0, image.width - 1);
        y = std::clamp(y, 0, image.height - 1);
        float v = image.samples[static_cast<size_t>(y) * image.width + x];
        return std::isnan(v) ? low : v;
    };
    for (int32_t y = 0; y < image.height; ++y)
        for (int32_t x = 0; x < image.width; ++x) {
            float dx = (at(x + 1, y) - at(x - 1, y)) * rise,
                  dy = (at(x, y + 1) - at(x, y - 1)) * rise;
            float n = 1.0f / std::sqrt(dx * dx + dy * dy + 1.0f);
            float light = std::max(0.0f, (-dx * lx - dy * ly + lz) * n);
            float shade = 0.45f + 0.55f * light / lz;
            float rgb[3];
            Ramp((at(x, y) - low) / span, rgb);
            float* out = &picture.samples[(static_cast<size_t>(y) * image.width + x) * 3];
            for (int c = 0; c < 3; ++c) out[c] = std::clamp(rgb[c] * shade, 0.0f, 1.0f);
        }
    return picture;
}

PageWriter::PageWriter(fs::path dir, const basekit::host::World& world, bool staticFiles)
    : dir(std::move(dir)), world(world), staticFiles(staticFiles) {
    // Missing page files are told before the build, not after it.
    if (staticFiles) FindWebFolder();
    fs::create_directories(this->dir / "data");
}

void PageWriter::WriteData(const std::string& name, const ImageView& image, bool mask) {
    const int32_t step = PageStride(image.width, image.height);
    int32_t width = 0, height = 0;
    std::vector<float> kept = Keep(image, step, width, height);
    float low = INFINITY, high = -INFINITY;
    for (float v : kept)
        if (!std::isnan(v)) low = std::min(low, v), high = std::max(high, v);
    if (low > high) low = high = 0.0f;

    // The samples as little-endian float32, which every browser reads directly.
    json head = {
        {"width", width}, {"height", height}, {"channels", image.channels}, {"stride", step}};
    std::string script =
        "OrogenData(" + json(name).dump() + "," + head.dump() + ",\"" +
        Base64(reinterpret_cast<const unsigned char*>(kept.data()), kept.size() * sizeof(float)) +
        "\");\n";
    basekit::host::WriteTextFile(dir / "data" / (name + ".js"), script);

    // The gallery's picture: kept samples again, at most kThumbSide a side.
    const int32_t thumbStep =
        std::max<int32_t>(1, (std::max(width, height) + kThumbSide - 1) / kThumbSide);
    int32_t thumbWidth = 0, thumbHeight = 0;
    std::vector<float> thumb = Keep(ImageView(width, height, image.channels, kept.data()),
                                    thumbStep, thumbWidth, thumbHeight);
    const double cell = (world.x1 - world.x0) / std::max(1, world.width - 1) * step * thumbStep;
    Image picture =
        RenderPageImage(ImageView(thumbWidth, thumbHeight, image.channels, thumb.data()), mask, low,
                        high, cell, world.verticalScale);
    basekit::host::WritePng8(dir / "data" / (name + ".png"), picture);

    std::lock_guard<std::mutex> guard(mutex);
    pageOf[name] = {{"stride", step}, {"dataWidth", width}, {"dataHeight", height}};
}

void PageWriter::Finish(const json& manifest) const {
    json page = manifest;
    page["world"] = {{"extent", {world.x0, world.y0, world.x1, world.y1}},
                     {"resolution", {world.width, world.height}},
                     {"verticalScale", world.verticalScale}};
    {
        std::lock_guard<std::mutex> guard(mutex);
        for (json& output : page["outputs"]) {
            auto found = pageOf.find(output["name"].get<std::string>());
            if (found != pageOf.end()) output["page"] = found->second;
        }
    }
    basekit::host::WriteTextFile(dir / "data" / "manifest.js",
                                 "OrogenManifest(" + page.dump() + ");\n");
    if (staticFiles) WritePageFiles(dir);
}

void WritePageFiles(const fs::path& dir) {
    const fs::path web = FindWebFolder();
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(web)) {
        fs::path target = dir / fs::relative(entry.path(), web);
        if (entry.is_directory())
            fs::create_directories(target);
        else if (entry.is_regular_file())
            fs::copy_file(entry.path(), target, fs::copy_options::overwrite_existing);
    }
}

}  // namespace orogen
