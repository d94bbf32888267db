// "File Input": a generator of the host's own that reads a height field or an
// image from a file. Raw .r32 files must have the world's resolution (three
// floats per pixel for a bitmap); .png (8 or 16 bit, grey or RGB) and .exr
// files are read through ImageIO and must have it too.
#pragma once

#include <filesystem>
#include <string>

#include "framework/Device.h"

namespace basekit::host {

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

  private:
    std::filesystem::path file;
    Kind kind = Kind::HeightField;
    std::string lastError;
};

// The device as a File Input, or null. Told by its create pointer, so that
// no type information has to cross into a module's objects.
FileInput* AsFileInput(Orogen::Device* device);

}  // namespace basekit::host
