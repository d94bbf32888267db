#include "host/FileInput.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "framework/Serialization.h"
#include "framework/Terrain.h"
#include "host/ImageIO.h"

namespace basekit::host {

namespace {

constexpr uint8_t kVersion = 1;
// A longer path in a saved state is taken as damage.
constexpr uint32_t kMaxPathBytes = 1 << 16;

std::string LowerExtension(const std::filesystem::path& path) {
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

// A raw file holds no size: the world's, or else a square one (game engines
// write square heightmaps) that is then resampled.
Image ReadRawFor(const std::filesystem::path& file, bool r16, int channels,
                 const Orogen::Grid& grid) {
    const uint64_t bytes = r16 ? 2 : 4;
    std::error_code error;
    const uintmax_t size = std::filesystem::file_size(file, error);
    int32_t width = grid.width, height = grid.height;
    if (!error && size != bytes * channels * uint64_t(width) * uint64_t(height) &&
        size % (bytes * channels) == 0) {
        const uint64_t points = size / (bytes * channels);
        uint64_t side = uint64_t(std::sqrt(double(points)));
        while (side * side > points) --side;
        while ((side + 1) * (side + 1) <= points) ++side;
        if (side * side == points && side >= 1 && side <= uint64_t(INT32_MAX))
            width = height = int32_t(side);
    }
    return r16 ? ReadR16(file, width, height, channels) : ReadR32(file, width, height, channels);
}

Image ReadFor(const std::filesystem::path& file, int channels, const Orogen::Grid& grid) {
    if (file.empty()) throw std::runtime_error("no file is set");
    std::string extension = LowerExtension(file);
    if (extension == ".r32" || extension == ".r16")
        return ReadRawFor(file, extension == ".r16", channels, grid);
    if (extension == ".png" || extension == ".exr" || extension == ".tif" || extension == ".tiff")
        return ReadImage(file, channels);
    throw std::runtime_error(file.string() + ": unsupported file type \"" + extension +
                             "\" (use .r32, .r16, .png, .exr, .tif or .tiff)");
}

}  // namespace

Image ResampleBilinear(const Image& image, int32_t width, int32_t height) {
    Image out{width, height, image.channels,
              std::vector<float>(size_t(width) * size_t(height) * size_t(image.channels))};
    // First sample on first, last on last: the samples are points.
    const double sx = width > 1 ? double(image.width - 1) / (width - 1) : 0.0;
    const double sy = height > 1 ? double(image.height - 1) / (height - 1) : 0.0;
    float* at = out.samples.data();
    for (int32_t y = 0; y < height; ++y) {
        const float fy = static_cast<float>(y * sy);
        for (int32_t x = 0; x < width; ++x, at += image.channels)
            Orogen::BilinearSample(image.samples.data(), image.width, image.height, image.channels,
                                   static_cast<float>(x * sx), fy, at);
    }
    return out;
}

FileInput::FileInput() {
    SetIdentity("FINP", &Orogen::CreateDevice<FileInput>);
    Orogen::SetPortCount(this, 0, 1, Orogen::kHeightField);
}

void FileInput::SetKind(Kind wanted) {
    kind = wanted;
    if (!outputs.empty())
        outputs[0]->kind = kind == Kind::Bitmap ? Orogen::kBitmap : Orogen::kHeightField;
}

bool FileInput::Build(const Orogen::BuildContext& context) {
    lastError.clear();
    note.clear();
    bool bitmap = kind == Kind::Bitmap;
    try {
        Image image = ReadFor(file, bitmap ? 3 : 1, context.grid);
        if (image.width != context.grid.width || image.height != context.grid.height) {
            note = "resampled from " + std::to_string(image.width) + " x " +
                   std::to_string(image.height) + " to " + std::to_string(context.grid.width) +
                   " x " + std::to_string(context.grid.height) + " (bilinear)";
            image = ResampleBilinear(image, context.grid.width, context.grid.height);
        }
        Orogen::PacketRef packet =
            Orogen::NewPacket(bitmap ? Orogen::kBitmap : Orogen::kHeightField, context.grid);
        std::copy(image.samples.begin(), image.samples.end(), packet->samples);
        Orogen::ClampHeights(packet.get());
        StoreOutput(context, packet, 0);
        return true;
    } catch (const std::exception& e) {
        lastError = e.what();
        return false;
    }
}

FileInput* AsFileInput(Orogen::Device* device) {
    if (!device || device->identity.create != &Orogen::CreateDevice<FileInput>) return nullptr;
    return static_cast<FileInput*>(device);
}

bool FileInput::Save(std::ostream& out) {
    SaveHeader(out, kVersion);
    Orogen::StateWriter writer(out);
    writer.U32(static_cast<uint32_t>(kind));
    std::string path = file.generic_string();
    writer.U32(static_cast<uint32_t>(path.size()));
    writer.Bytes(path.data(), path.size());
    return SaveBaseState(out);
}

bool FileInput::Load(std::istream& in) {
    uint8_t version;
    if (!LoadHeader(in, version) || version != kVersion) return false;
    Orogen::StateReader reader(in);
    uint32_t savedKind, length;
    if (!reader.U32(savedKind) || savedKind > 1 || !reader.U32(length) || length > kMaxPathBytes)
        return false;
    std::string path(length, '\0');
    if (!reader.Bytes(path.data(), length)) return false;
    if (!LoadBaseState(in)) return false;
    SetKind(static_cast<Kind>(savedKind));
    file = path;
    return true;
}

}  // namespace basekit::host
