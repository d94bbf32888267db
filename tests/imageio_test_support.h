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

#include "TempDir.h"

namespace basekit::host::testing {

namespace fs = std::filesystem;

using basekit::testing::TempDir;

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
