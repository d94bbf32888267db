// Helpers shared by the image I/O tests.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/ImageIO.h"

// Skip a test where this build lacks the library it needs.
#define NEED_PNG_READER()               \
    if (!::basekit::host::CanReadPng()) \
    GTEST_SKIP() << "this build has no libpng: PNG files cannot be read"
#define NEED_EXR() \
    if (!::basekit::host::CanUseExr()) GTEST_SKIP() << "this build has no OpenEXR"

#include "TempDir.h"

namespace basekit::host::testing {

namespace fs = std::filesystem;

using basekit::testing::ReadBytes;
using basekit::testing::TempDir;
using basekit::testing::WriteBytes;

// A deterministic image whose sample i is f(i).
template <class F>
Image MakeImage(int32_t width, int32_t height, int channels, F f) {
    Image image{width, height, channels, {}};
    image.samples.resize(size_t(width) * height * channels);
    for (size_t i = 0; i < image.samples.size(); ++i) image.samples[i] = f(i);
    return image;
}

// Values for the PNG writers: the levels' edges and halves, NaN, infinities,
// and ordinary values a little beyond 0..1.
inline float PngSample(size_t i) {
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    constexpr float inf = std::numeric_limits<float>::infinity();
    static const float special[] = {0.0f, 1.0f, 0.5f, 0.25f,           0.2f,         -0.25f, 1.75f,
                                    nan,  inf,  -inf, 1.0f / 65535.0f, 0.5f / 255.0f};
    if (i < std::size(special)) return special[i];
    return 0.5f + 0.6f * std::sin(float(i) * 0.61f);
}

// The level a PNG of `max` levels stores for v, worked out independently of
// the code under test: clamped to 0..1, NaN as 0, rounded half away from 0.
inline unsigned PngLevel(float v, unsigned max) {
    if (std::isnan(v)) return 0;
    return unsigned(std::round(std::clamp(double(v), 0.0, 1.0) * max));
}

// Runs f, which must throw std::runtime_error; returns its message.
inline std::string ErrorOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    } catch (...) {
        ADD_FAILURE() << "threw something other than std::runtime_error";
        return {};
    }
    ADD_FAILURE() << "did not throw";
    return {};
}

inline bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

inline std::string BigEndian32(uint32_t v) {
    return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}

// CRC-32 as PNG chunks and zlib use it, written independently of both.
inline uint32_t Crc32(const std::string& bytes) {
    uint32_t crc = 0xffffffffu;
    for (const char c : bytes) {
        crc ^= uint8_t(c);
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xedb88320u & (0u - (crc & 1u)));
    }
    return crc ^ 0xffffffffu;
}

inline std::string PngChunk(const std::string& type, const std::string& data) {
    return BigEndian32(uint32_t(data.size())) + type + data + BigEndian32(Crc32(type + data));
}

}  // namespace basekit::host::testing
