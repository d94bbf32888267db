#include "host/FileInput.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "framework/Serialization.h"
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

Image ReadFor(const std::filesystem::path& file, int channels, const Orogen::Grid& grid) {
    if (file.empty()) throw std::runtime_error("no file is set");
    std::string extension = LowerExtension(file);
    Image image;
    if (extension == ".r32") {
        image = ReadR32(file, grid.width, grid.height, channels);
    } else if (extension == ".png" || extension == ".exr") {
        image = ReadImage(file, channels);
    } else {
        throw std::runtime_error(file.string() + ": unsupported file type \"" + extension +
                                 "\" (use .r32, .png or .exr)");
    }
    if (image.width != grid.width || image.height != grid.height)
        throw std::runtime_error(file.string() + ": the image is " + std::to_string(image.width) +
                                 " x " + std::to_string(image.height) + ", the world is " +
                                 std::to_string(grid.width) + " x " + std::to_string(grid.height));
    return image;
}

}  // namespace

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
    bool bitmap = kind == Kind::Bitmap;
    try {
        Image image = ReadFor(file, bitmap ? 3 : 1, context.grid);
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
