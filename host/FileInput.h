// "File Input": a generator of the host's own that reads a height field or an
// image from a file: raw .r32 (three floats per pixel for a bitmap) and .r16,
// .png (8 or 16 bit, grey or RGB), .exr, .tif and .tiff through ImageIO. A file
// of another resolution is resampled bilinearly to the world's; a raw file,
// which holds no size, has the world's resolution or is square.
#pragma once

#include <filesystem>
#include <string>

#include "framework/Device.h"
#include "host/ImageIO.h"

namespace basekit::host {

// `image` at width x height: the first and last samples stay where they are
// and each other is the framework's bilinear sample (BilinearSample) at its
// place in the image.
Image ResampleBilinear(const Image& image, int32_t width, int32_t height);

class FileInput : public Orogen::Generator {
  public:
    static constexpr int32_t kCategory = 1;
    static constexpr int32_t kDataTypes = Orogen::kHeightField | Orogen::kBitmap;

    enum class Kind : uint32_t { HeightField = 0, Bitmap = 1 };

    FileInput();
    const char* GetTypeName() override { return "File Input"; }
    const char* GetDescription() override { return "Reads a height field or an image from a file"; }
    // The packet is made once the file has been read.
    bool PrepareOutputs(std::vector<Orogen::PacketRef>&, const Orogen::BuildContext&) override {
        return false;
    }
    bool Build(const Orogen::BuildContext& context) override;
    bool Save(std::ostream& out) override;
    bool Load(std::istream& in) override;

    void SetFile(const std::filesystem::path& path) { file = path; }
    const std::filesystem::path& File() const { return file; }
    // Also sets the output port's kind.
    void SetKind(Kind kind);
    Kind GetKind() const { return kind; }

    // Why the last build failed; empty after a build that succeeded.
    const std::string& LastError() const { return lastError; }
    // What the last build did beyond reading the file (a resampling); empty
    // when nothing.
    const std::string& LastNote() const { return note; }

  private:
    std::filesystem::path file;
    Kind kind = Kind::HeightField;
    std::string lastError;
    std::string note;
};

// The device as a File Input, or null. Told by its create pointer, so that
// no type information has to cross into a module's objects.
FileInput* AsFileInput(Orogen::Device* device);

}  // namespace basekit::host
