// Round trips through every writer and reader, exact layouts and values.
#include <gtest/gtest.h>
#ifdef BASEKIT64_HAVE_OPENEXR
#include <ImfChannelList.h>
#include <ImfCompression.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#endif

#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "imageio_test_support.h"

namespace basekit::host::testing {
namespace {

struct Format {
    const char* name;
    const char* extension;
    void (*write)(const fs::path&, const ImageView&);
    double levels;  // PNG: the largest level; 0 for the float formats
};

const Format kFormats[] = {{"R32", ".r32", WriteR32, 0},
                           {"Png16", ".png", WritePng16, 65535},
                           {"Png8", ".png", WritePng8, 255},
                           {"Exr", ".exr", WriteExr, 0}};

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// What a PNG of `max` levels stores for v, written independently of the code
// under test: clamp to 0..1, NaN to 0, round half away from zero.
float Quantized(float v, double max) {
    if (std::isnan(v)) return 0.0f;
    return float(std::round(std::clamp(double(v), 0.0, 1.0) * max)) / float(max);
}

// Special floats, bit patterns included, and ordinary ones.
float FloatSample(size_t i) {
    static const float special[] = {0.0f, -0.0f, 1.0f, -1.5f, 0.1f, 3.4e38f,
                                    1e-40f,  // subnormal
                                    kInf, -kInf, kNan,
                                    std::bit_cast<float>(0x7fc01234u)};  // NaN with a payload
    if (i < std::size(special)) return special[i];
    return std::sin(float(i) * 0.37f) * 1000.0f + float(i) * 1e-3f;
}

struct Shape {
    int32_t width, height;
};

using RoundTripParam = std::tuple<Format, Shape, int>;

class RoundTrip : public ::testing::TestWithParam<RoundTripParam> {};

TEST_P(RoundTrip, ReadsBackWhatWasWritten) {
    const auto [format, shape, channels] = GetParam();
    const bool isPng = format.levels > 0, isR32 = format.write == WriteR32;
    if (format.write == WriteExr) {
        NEED_EXR();
    }
    const Image image = MakeImage(shape.width, shape.height, channels,
                                  [&](size_t i) { return isPng ? PngSample(i) : FloatSample(i); });
    TempDir dir;
    const fs::path path = dir / (std::string("image") + format.extension);
    format.write(path, image);
    EXPECT_EQ(dir.List(), std::vector<std::string>{path.filename().string()});
    if (isPng) {  // IHDR's bit depth and colour type (grey or RGB)
        const std::string bytes = ReadBytes(path);
        ASSERT_GT(bytes.size(), 26u);
        EXPECT_EQ(bytes.substr(12, 4), "IHDR");
        EXPECT_EQ(int(bytes[24]), format.levels == 255 ? 8 : 16);
        EXPECT_EQ(int(bytes[25]), channels == 1 ? 0 : 2);
        NEED_PNG_READER();
    }

    const Image back = isR32 ? ReadR32(path, image.width, image.height, image.channels)
                       : isPng ? ReadPng(path)
                               : ReadExr(path);
    ASSERT_EQ(back.width, image.width);
    ASSERT_EQ(back.height, image.height);
    ASSERT_EQ(back.channels, image.channels);
    ASSERT_EQ(back.samples.size(), image.samples.size());
    for (size_t i = 0; i < image.samples.size(); ++i) {
        const float in = image.samples[i], out = back.samples[i];
        if (!isPng) {
            ASSERT_EQ(std::bit_cast<uint32_t>(out), std::bit_cast<uint32_t>(in))
                << "sample " << i << ": " << in << " read back as " << out;
        } else {
            ASSERT_EQ(out, Quantized(in, format.levels)) << "sample " << i << " = " << in;
            const float clamped = std::isnan(in) ? 0.0f : std::clamp(in, 0.0f, 1.0f);
            ASSERT_LE(std::abs(out - clamped), 0.5 / format.levels + 1e-7) << "sample " << i;
        }
    }
    if (!isR32) {  // ReadImage picks the same reader by extension
        const Image same = ReadImage(path);
        EXPECT_EQ(same.channels, back.channels);
        EXPECT_EQ(std::memcmp(same.samples.data(), back.samples.data(),
                              back.samples.size() * sizeof(float)),
                  0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    AllFormats, RoundTrip,
    ::testing::Combine(::testing::ValuesIn(kFormats),
                       ::testing::Values(Shape{1, 1}, Shape{7, 3}, Shape{3, 7}, Shape{64, 33}),
                       ::testing::Values(1, 3)),
    [](const ::testing::TestParamInfo<RoundTripParam>& info) {
        const Shape shape = std::get<1>(info.param);
        return std::string(std::get<0>(info.param).name) + "_" + std::to_string(shape.width) +
               "x" + std::to_string(shape.height) + "x" + std::to_string(std::get<2>(info.param));
    });

TEST(ImageIO, R32IsRawLittleEndianFloat) {
    TempDir dir;
    const fs::path path = dir / "h.r32";
    WriteR32(path, Image{2, 1, 1, {1.0f, -2.0f}});
    EXPECT_EQ(ReadBytes(path), std::string("\x00\x00\x80\x3f\x00\x00\x00\xc0", 8));
    WriteR32(path, Image{1, 1, 3, {0.5f, 2.0f, -0.0f}});
    EXPECT_EQ(ReadBytes(path), std::string("\x00\x00\x00\x3f\x00\x00\x00\x40\x00\x00\x00\x80", 12));
}

// One file written over twice: the second replaces the first whole.
TEST(ImageIO, ExrHasFloatChannelsNamedYOrRgbAndZip) {
#ifndef BASEKIT64_HAVE_OPENEXR
    GTEST_SKIP() << "this build has no OpenEXR";
#else
    TempDir dir;
    const fs::path path = dir / "c.exr";
    for (const int channels : {3, 1}) {
        const Image image = MakeImage(5, 4, channels, FloatSample);
        WriteExr(path, image);
        EXPECT_EQ(dir.List(), std::vector<std::string>{"c.exr"});
        EXPECT_EQ(ReadExr(path).channels, channels);
        Imf::InputFile file(path.string().c_str());
        const Imf::Header& header = file.header();
        EXPECT_EQ(header.compression(), Imf::ZIP_COMPRESSION);
        EXPECT_EQ(header.dataWindow().min.x, 0);
        EXPECT_EQ(header.dataWindow().max.x, 4);
        EXPECT_EQ(header.dataWindow().max.y, 3);
        std::vector<std::string> names;
        for (auto it = header.channels().begin(); it != header.channels().end(); ++it) {
            names.push_back(it.name());
            EXPECT_EQ(it.channel().type, Imf::FLOAT) << it.name();
        }
        EXPECT_EQ(names, (channels == 1 ? std::vector<std::string>{"Y"}
                                        : std::vector<std::string>{"B", "G", "R"}));
    }
#endif
}

TEST(ImageIO, ReadImageConvertsChannels) {
    const Image grey = MakeImage(17, 5, 1, FloatSample);
    const Image back = ConvertChannels(ConvertChannels(grey, 3), 1);  // grey stays exact
    ASSERT_EQ(back.samples.size(), grey.samples.size());
    for (size_t i = 0; i < grey.samples.size(); ++i) {
        if (std::isnan(grey.samples[i]))
            EXPECT_TRUE(std::isnan(back.samples[i]));
        else
            EXPECT_EQ(back.samples[i], grey.samples[i]) << "sample " << i;
    }
    EXPECT_THROW(ConvertChannels(grey, 2), std::runtime_error);
    EXPECT_THROW(ConvertChannels(Image{2, 2, 1, {1.0f}}, 3), std::runtime_error);

    NEED_PNG_READER();
    NEED_EXR();
    TempDir dir;
    const fs::path greyPath = dir / "g.png", rgbPath = dir / "c.EXR";
    WritePng16(greyPath, Image{2, 1, 1, {0.0f, 0.5f}});
    WriteExr(rgbPath, Image{2, 1, 3, {1.0f, 0.0f, 0.0f, 0.3f, 0.3f, 0.3f}});
    const float half = 32768.0f / 65535.0f;
    EXPECT_EQ(ReadImage(greyPath, 3).samples,
              (std::vector<float>{0.0f, 0.0f, 0.0f, half, half, half}));
    // Extension matched case-insensitively; Rec. 601 luminance, grey exactly grey.
    EXPECT_EQ(ReadImage(rgbPath, 1).samples, (std::vector<float>{0.299f, 0.3f}));
    EXPECT_EQ(ReadImage(rgbPath, 3).channels, 3);
    EXPECT_EQ(ReadImage(rgbPath).channels, 3);
    EXPECT_EQ(ReadImage(greyPath, 1).channels, 1);
}

}  // namespace
}  // namespace basekit::host::testing
