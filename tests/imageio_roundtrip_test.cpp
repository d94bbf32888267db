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

enum class Format { R32, Png16, Png8, Exr };

const char* Extension(Format format) {
    switch (format) {
        case Format::R32:
            return ".r32";
        case Format::Png16:
        case Format::Png8:
            return ".png";
        case Format::Exr:
            return ".exr";
    }
    return "";
}

const char* Name(Format format) {
    switch (format) {
        case Format::R32:
            return "R32";
        case Format::Png16:
            return "Png16";
        case Format::Png8:
            return "Png8";
        case Format::Exr:
            return "Exr";
    }
    return "";
}

void Write(Format format, const fs::path& path, const Image& image) {
    switch (format) {
        case Format::R32:
            return WriteR32(path, image);
        case Format::Png16:
            return WritePng16(path, image);
        case Format::Png8:
            return WritePng8(path, image);
        case Format::Exr:
            return WriteExr(path, image);
    }
}

Image Read(Format format, const fs::path& path, const Image& like) {
    switch (format) {
        case Format::R32:
            return ReadR32(path, like.width, like.height, like.channels);
        case Format::Png16:
        case Format::Png8:
            return ReadPng(path);
        case Format::Exr:
            return ReadExr(path);
    }
    return {};
}

// What a PNG of `max` levels stores for v, written independently of the code
// under test: clamp to 0..1, NaN to 0, round half away from zero.
float Quantized(float v, double max) {
    if (std::isnan(v)) return 0.0f;
    const double clamped = std::clamp(double(v), 0.0, 1.0);
    return float(std::round(clamped * max)) / float(max);
}

// Values worth storing: special floats for the float formats, the PNG range
// and beyond it for the PNG formats.
float FloatSample(size_t i) {
    static const float special[] = {0.0f,
                                    -0.0f,
                                    1.0f,
                                    -1.5f,
                                    0.1f,
                                    3.4e38f,
                                    1e-40f,  // subnormal
                                    std::numeric_limits<float>::infinity(),
                                    -std::numeric_limits<float>::infinity(),
                                    std::numeric_limits<float>::quiet_NaN(),
                                    std::bit_cast<float>(0x7fc01234u)};  // NaN with a payload
    constexpr size_t n = sizeof special / sizeof special[0];
    if (i < n) return special[i];
    return std::sin(float(i) * 0.37f) * 1000.0f + float(i) * 1e-3f;
}

float PngSample(size_t i) {
    static const float special[] = {0.0f,
                                    1.0f,
                                    0.5f,
                                    -0.25f,
                                    1.75f,
                                    std::numeric_limits<float>::quiet_NaN(),
                                    1.0f / 65535.0f,
                                    0.5f / 255.0f};
    constexpr size_t n = sizeof special / sizeof special[0];
    if (i < n) return special[i];
    return 0.5f + 0.6f * std::sin(float(i) * 0.61f);  // spills a little beyond 0..1
}

struct Shape {
    int32_t width, height;
};

using RoundTripParam = std::tuple<Format, Shape, int>;

class RoundTrip : public ::testing::TestWithParam<RoundTripParam> {};

TEST_P(RoundTrip, ReadsBackWhatWasWritten) {
    const auto [format, shape, channels] = GetParam();
    const bool isPng = format == Format::Png16 || format == Format::Png8;
    if (isPng) {
        NEED_PNG_READER();
    }
    if (format == Format::Exr) {
        NEED_EXR();
    }
    const Image image = MakeImage(shape.width, shape.height, channels,
                                  [&](size_t i) { return isPng ? PngSample(i) : FloatSample(i); });
    TempDir dir;
    const fs::path path = dir / (std::string("image") + Extension(format));
    Write(format, path, image);
    EXPECT_EQ(dir.List(), std::vector<std::string>{path.filename().string()});

    const Image back = Read(format, path, image);
    ASSERT_EQ(back.width, image.width);
    ASSERT_EQ(back.height, image.height);
    ASSERT_EQ(back.channels, image.channels);
    ASSERT_EQ(back.samples.size(), image.samples.size());
    for (size_t i = 0; i < image.samples.size(); ++i) {
        const float in = image.samples[i], out = back.samples[i];
        switch (format) {
            case Format::R32:
            case Format::Exr:
                ASSERT_EQ(std::bit_cast<uint32_t>(out), std::bit_cast<uint32_t>(in))
                    << "sample " << i << ": " << in << " read back as " << out;
                break;
            case Format::Png16:
            case Format::Png8: {
                const double max = format == Format::Png16 ? 65535.0 : 255.0;
                ASSERT_EQ(out, Quantized(in, max)) << "sample " << i << " = " << in;
                const float clamped = std::isnan(in) ? 0.0f : std::clamp(in, 0.0f, 1.0f);
                ASSERT_LE(std::abs(out - clamped), 0.5 / max + 1e-7) << "sample " << i;
                break;
            }
        }
    }
    if (format != Format::R32) {  // ReadImage picks the same reader by extension
        const Image same = ReadImage(path);
        EXPECT_EQ(same.channels, back.channels);
        EXPECT_EQ(std::memcmp(same.samples.data(), back.samples.data(),
                              back.samples.size() * sizeof(float)),
                  0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    AllFormats, RoundTrip,
    ::testing::Combine(::testing::Values(Format::R32, Format::Png16, Format::Png8, Format::Exr),
                       ::testing::Values(Shape{1, 1}, Shape{7, 3}, Shape{3, 7}, Shape{64, 33}),
                       ::testing::Values(1, 3)),
    [](const ::testing::TestParamInfo<RoundTripParam>& info) {
        const Shape shape = std::get<1>(info.param);
        return std::string(Name(std::get<0>(info.param))) + "_" + std::to_string(shape.width) +
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

TEST(ImageIO, Png16KnownValues) {
    TempDir dir;
    const fs::path path = dir / "k.png";
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    WritePng16(
        path,
        Image{10, 1, 1, {0.0f, 1.0f, 0.5f, 0.25f, 1.0f / 65535.0f, -1.0f, 2.0f, nan, inf, -inf}});
    const std::string bytes = ReadBytes(path);
    ASSERT_GT(bytes.size(), 26u);
    EXPECT_EQ(bytes[24], 16);  // IHDR bit depth
    EXPECT_EQ(bytes[25], 0);   // IHDR colour type: grey

    NEED_PNG_READER();
    const Image back = ReadPng(path);
    const unsigned expected[] = {0, 65535, 32768, 16384, 1, 0, 65535, 0, 65535, 0};
    ASSERT_EQ(back.samples.size(), 10u);
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(back.samples[i], float(expected[i]) / 65535.0f) << "sample " << i;
    }
    EXPECT_EQ(back.samples[0], 0.0f);
    EXPECT_EQ(back.samples[1], 1.0f);
}

TEST(ImageIO, PngHeadersMatchDepthAndChannels) {
    TempDir dir;
    const Image grey = MakeImage(3, 2, 1, PngSample);
    const Image rgb = MakeImage(3, 2, 3, PngSample);
    const struct {
        void (*write)(const fs::path&, const ImageView&);
        const Image* image;
        int depth, colourType;
    } cases[] = {{WritePng16, &grey, 16, 0},
                 {WritePng16, &rgb, 16, 2},
                 {WritePng8, &grey, 8, 0},
                 {WritePng8, &rgb, 8, 2}};
    for (const auto& c : cases) {
        const fs::path path = dir / "p.png";
        c.write(path, *c.image);
        const std::string bytes = ReadBytes(path);
        ASSERT_GT(bytes.size(), 26u);
        EXPECT_EQ(bytes.substr(1, 3), "PNG");
        EXPECT_EQ(bytes.substr(12, 4), "IHDR");
        EXPECT_EQ(int(bytes[24]), c.depth);
        EXPECT_EQ(int(bytes[25]), c.colourType);
    }
}

TEST(ImageIO, Png8KnownValues) {
    NEED_PNG_READER();
    TempDir dir;
    const fs::path path = dir / "k8.png";
    WritePng8(path, Image{1, 2, 3, {0.0f, 1.0f, 0.5f, 0.2f, -3.0f, 7.0f}});
    const Image back = ReadPng(path);
    ASSERT_EQ(back.channels, 3);
    const unsigned expected[] = {0, 255, 128, 51, 0, 255};
    for (size_t i = 0; i < 6; ++i) EXPECT_EQ(back.samples[i], float(expected[i]) / 255.0f);
}

TEST(ImageIO, ExrHasFloatChannelsNamedYOrRgbAndZip) {
#ifndef BASEKIT64_HAVE_OPENEXR
    GTEST_SKIP() << "this build has no OpenEXR";
#else
    TempDir dir;
    for (const int channels : {1, 3}) {
        const fs::path path = dir / "c.exr";
        WriteExr(path, MakeImage(5, 4, channels, FloatSample));
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
        const std::vector<std::string> expected =
            channels == 1 ? std::vector<std::string>{"Y"} : std::vector<std::string>{"B", "G", "R"};
        EXPECT_EQ(names, expected);
    }
#endif
}

TEST(ImageIO, WriteReplacesAnExistingFile) {
    NEED_EXR();
    TempDir dir;
    const fs::path path = dir / "h.exr";
    WriteExr(path, Image{1, 1, 1, {1.0f}});
    WriteExr(path, Image{2, 1, 1, {2.0f, 3.0f}});
    const Image back = ReadExr(path);
    EXPECT_EQ(back.width, 2);
    EXPECT_EQ(back.samples, (std::vector<float>{2.0f, 3.0f}));
    EXPECT_EQ(dir.List(), std::vector<std::string>{"h.exr"});
}

TEST(ImageIO, ReadImageConvertsChannels) {
    NEED_PNG_READER();
    NEED_EXR();
    TempDir dir;
    const fs::path greyPath = dir / "g.png", rgbPath = dir / "c.EXR";
    WritePng16(greyPath, Image{2, 1, 1, {0.0f, 0.5f}});
    WriteExr(rgbPath, Image{2, 1, 3, {1.0f, 0.0f, 0.0f, 0.3f, 0.3f, 0.3f}});

    const Image rgb = ReadImage(greyPath, 3);
    ASSERT_EQ(rgb.channels, 3);
    const float half = 32768.0f / 65535.0f;
    EXPECT_EQ(rgb.samples, (std::vector<float>{0.0f, 0.0f, 0.0f, half, half, half}));

    const Image grey = ReadImage(rgbPath, 1);  // extension matched case-insensitively
    ASSERT_EQ(grey.channels, 1);
    ASSERT_EQ(grey.samples.size(), 2u);
    EXPECT_EQ(grey.samples[0], 0.299f);  // Rec. 601 luminance
    EXPECT_EQ(grey.samples[1], 0.3f);    // grey stays exactly grey

    EXPECT_EQ(ReadImage(rgbPath, 3).channels, 3);
    EXPECT_EQ(ReadImage(rgbPath).channels, 3);
    EXPECT_EQ(ReadImage(greyPath, 1).channels, 1);
}

TEST(ImageIO, ConvertChannelsKeepsGreyExact) {
    const Image grey = MakeImage(17, 5, 1, FloatSample);
    const Image rgb = ConvertChannels(grey, 3);
    const Image back = ConvertChannels(rgb, 1);
    ASSERT_EQ(back.samples.size(), grey.samples.size());
    for (size_t i = 0; i < grey.samples.size(); ++i) {
        if (std::isnan(grey.samples[i])) {
            EXPECT_TRUE(std::isnan(back.samples[i]));
        } else {
            EXPECT_EQ(back.samples[i], grey.samples[i]) << "sample " << i;
        }
    }
    EXPECT_THROW(ConvertChannels(grey, 2), std::runtime_error);
    EXPECT_THROW(ConvertChannels(Image{2, 2, 1, {1.0f}}, 3), std::runtime_error);
}

}  // namespace
}  // namespace basekit::host::testing
