// Helpers shared by the image I/O tests.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/ImageIO.h"

// Skip a test where this build lacks the library it needs.
#define NEED_PNG_READER()                                                \
    if (!::basekit::host::CanReadPng())                                  \
    GTEST_SKIP() << "this build has no libpng: PNG files cannot be read"
#define NEED_EXR() \
    if (!::basekit::host::CanUseExr()) GTEST_SKIP() << "this build has no OpenEXR"

namespace basekit::host::testing {

namespace fs = std::filesystem;

// A fresh folder for one test, removed with everything in it afterwards.
class TempDir {
  public:
    TempDir() {
        std::random_device random;
        const fs::path base = fs::temp_directory_path();
        for (;;) {  // another process may pick the same name: try again
            path_ = base / ("basekit-imageio-" + std::to_string(random()));
            if (fs::create_directory(path_)) break;
        }
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }

    // The names in the folder, sorted.
    std::vector<std::string> List() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(path_)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

  private:
    fs::path path_;
};

inline std::string ReadBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("test: cannot open " + path.string());
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    if (!out) throw std::runtime_error("test: cannot write " + path.string());
}

// A deterministic image whose sample i is f(i).
template <class F>
Image MakeImage(int32_t width, int32_t height, int channels, F f) {
    Image image{width, height, channels, {}};
    image.samples.resize(size_t(width) * height * channels);
    for (size_t i = 0; i < image.samples.size(); ++i) image.samples[i] = f(i);
    return image;
}

}  // namespace basekit::host::testing
