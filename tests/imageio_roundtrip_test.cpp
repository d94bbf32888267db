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
#include <cstdlib>
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
    Image (*read)(const fs::path&, const Image& like);  // raw files need the size
    double levels;  // 16-bit and PNG: the largest level; 0 for the float formats
    bool (*available)();
};

const Format kFormats[] = {
    {"R32", ".r32", WriteR32,
     [](const fs::path& p, const Image& i) { return ReadR32(p, i.width, i.height, i.channels); }, 0,
     [] { return true; }},
    {"R16", ".r16", [](const fs::path& p, const ImageView& i) { WriteR16(p, i); },
     [](const fs::path& p, const Image& i) { return ReadR16(p, i.width, i.height, i.channels); },
     65535, [] { return true; }},
    {"Png16", ".png", WritePng16, [](const fs::path& p, const Image&) { return ReadPng(p); }, 65535,
     CanReadPng},
    {"Png8", ".png", WritePng8, [](const fs::path& p, const Image&) { return ReadPng(p); }, 255,
     CanReadPng},
    {"Exr", ".exr", [](const fs::path& p, const ImageView& i) { WriteExr(p, i); },
     [](const fs::path& p, const Image&) { return ReadExr(p); }, 0, CanUseExr},
    {"Tif", ".tif", [](const fs::path& p, const ImageView& i) { WriteGeoTiff(p, i, {}); },
     [](const fs::path& p, const Image&) { return ReadTiff(p); }, 0, CanUseTiff}};

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// Special floats, bit patterns included (a subnormal, a NaN with a payload),
// and ordinary ones.
float FloatSample(size_t i) {
    static const float payloadNan = std::bit_cast<float>(0x7fc01234u);
    static const float special[] = {0.0f,   -0.0f, 1.0f,  -1.5f, 0.1f,      3.4e38f,
                                    1e-40f, kInf,  -kInf, kNan,  payloadNan};
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
    const bool quantized = format.levels > 0, isRaw = format.extension[1] == 'r';
    if (format.extension != std::string(".png") && !format.available())
        GTEST_SKIP() << "this build cannot write " << format.name;
    const Image image = MakeImage(shape.width, shape.height, channels, [&](size_t i) {
        return quantized ? PngSample(i) : FloatSample(i);
    });
    TempDir dir;
    const fs::path path = dir / (std::string("image") + format.extension);
    format.write(path, image);
    EXPECT_EQ(dir.List(), std::vector<std::string>{path.filename().string()});
    if (format.extension == std::string(".png")) {  // IHDR's bit depth and colour type
        const std::string bytes = ReadBytes(path);
        ASSERT_GT(bytes.size(), 26u);
        EXPECT_EQ(bytes.substr(12, 4), "IHDR");
        EXPECT_EQ(int(bytes[24]), format.levels == 255 ? 8 : 16);
        EXPECT_EQ(int(bytes[25]), channels == 1 ? 0 : 2);
        NEED_PNG_READER();
    }

    const Image back = format.read(path, image);
    ASSERT_EQ(back.width, image.width);
    ASSERT_EQ(back.height, image.height);
    ASSERT_EQ(back.channels, image.channels);
    ASSERT_EQ(back.samples.size(), image.samples.size());
    for (size_t i = 0; i < image.samples.size(); ++i) {
        const float in = image.samples[i], out = back.samples[i];
        if (!quantized) {
            ASSERT_EQ(std::bit_cast<uint32_t>(out), std::bit_cast<uint32_t>(in))
                << "sample " << i << ": " << in << " read back as " << out;
        } else {
            ASSERT_EQ(out, float(PngLevel(in, unsigned(format.levels))) / float(format.levels))
                << "sample " << i << " = " << in;
        }
    }
    if (!isRaw) {  // ReadImage picks the same reader by extension
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
        return std::string(std::get<0>(info.param).name) + "_" + std::to_string(shape.width) + "x" +
               std::to_string(shape.height) + "x" + std::to_string(std::get<2>(info.param));
    });

// Each write replaces the file whole: one file is written over several times.
TEST(ImageIO, ExrHasFloatChannelsNamedYOrRgbOrGivenAndZip) {
#ifndef BASEKIT64_HAVE_OPENEXR
    GTEST_SKIP() << "this build has no OpenEXR";
#else
    TempDir dir;
    const fs::path path = dir / "c.exr";
    const struct {
        int channels;
        std::string heightChannel;
        std::vector<std::string> names;
    } cases[] = {{3, "Y", {"B", "G", "R"}}, {1, "Y", {"Y"}}, {1, "Z", {"Z"}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.names.back());
        const Image image = MakeImage(5, 4, c.channels, FloatSample);
        WriteExr(path, image, c.heightChannel);
        EXPECT_EQ(dir.List(), std::vector<std::string>{"c.exr"});
        {
            Imf::InputFile file(path.string().c_str());
            const Imf::Header& header = file.header();
            EXPECT_EQ(header.compression(), Imf::ZIP_COMPRESSION);
            EXPECT_EQ(header.dataWindow(), Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(4, 3)));
            std::vector<std::string> names;
            for (auto it = header.channels().begin(); it != header.channels().end(); ++it) {
                names.push_back(it.name());
                EXPECT_EQ(it.channel().type, Imf::FLOAT) << it.name();
            }
            EXPECT_EQ(names, c.names);
        }
        // A height field under a name of its own reads back as that one channel.
        const Image back = ReadExr(path);
        ASSERT_EQ(back.channels, c.channels);
        EXPECT_EQ(std::memcmp(back.samples.data(), image.samples.data(),
                              image.samples.size() * sizeof(float)),
                  0);
    }
    EXPECT_TRUE(
        Contains(ErrorOf([&] { WriteExr(path, MakeImage(5, 4, 1, FloatSample), ""); }), "no name"));
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
    // Extension matched case-insensitively; Rec. 601 luminance, grey exactly grey.
    const std::tuple<fs::path, int, std::vector<float>> cases[] = {
        {greyPath, 3, {0.0f, 0.0f, 0.0f, half, half, half}},
        {greyPath, 1, {0.0f, half}},
        {rgbPath, 1, {0.299f, 0.3f}},
        {rgbPath, 3, {1.0f, 0.0f, 0.0f, 0.3f, 0.3f, 0.3f}},
        {rgbPath, 0, {1.0f, 0.0f, 0.0f, 0.3f, 0.3f, 0.3f}}};
    for (const auto& [path, channels, expected] : cases) {
        const Image image = ReadImage(path, channels);
        EXPECT_EQ(image.channels, int(expected.size()) / 2) << path << " as " << channels;
        EXPECT_EQ(image.samples, expected) << path << " as " << channels;
    }
}

// The 16-bit formats map a range onto 0..65535 the same way: PNG and r16 give
// the same levels, the fixed range is the default mapping.
TEST(ImageIO, SixteenBitRangeMapping) {
    struct Case {
        ValueRange range;
        float value;
        unsigned level;
    };
    const Case cases[] = {
        {{}, 0.0f, 0},          {{}, 1.0f, 65535},      {{}, 0.5f, 32768},
        {{}, kNan, 0},          {{}, -1.0f, 0},         {{}, 2.0f, 65535},
        {{-1, 3}, -1.0f, 0},    {{-1, 3}, 3.0f, 65535}, {{-1, 3}, 1.0f, 32768},
        {{-1, 3}, 0.0f, 16384}, {{-1, 3}, kNan, 0},     {{-1, 3}, 4.0f, 65535},
        {{-1, 3}, -2.0f, 0},    {{2, 2}, 2.0f, 0},      {{0.25, 0.5}, 0.375f, 32768}};
    TempDir dir;
    for (const Case& c : cases) {
        const Image image{1, 1, 1, {c.value}};
        WriteR16(dir / "h.r16", image, c.range);
        const std::string bytes = ReadBytes(dir / "h.r16");
        ASSERT_EQ(bytes.size(), 2u);
        EXPECT_EQ(unsigned(uint8_t(bytes[0])) | unsigned(uint8_t(bytes[1])) << 8, c.level)
            << c.value << " in " << c.range.low << ".." << c.range.high;
        WritePng(dir / "h.png", image, 16, {}, c.range);
        if (CanReadPng()) {
            EXPECT_EQ(ReadPng(dir / "h.png").samples[0], float(c.level) / 65535.0f);
        }
    }
    const Image image = MakeImage(40, 9, 3, PngSample);
    WritePng16(dir / "a.png", image);
    WritePng(dir / "b.png", image, 16, {}, ValueRange{});
    EXPECT_EQ(ReadBytes(dir / "a.png"), ReadBytes(dir / "b.png"));
}

// Our GeoTIFFs carry the extent exactly as the samples' points, in either
// direction along each axis.
TEST(ImageIO, GeoTiffExtentReadsBack) {
    if (!CanUseTiff()) GTEST_SKIP() << "this build has no TIFF";
    const GeoExtent extents[] = {{0, 0, 1, 1},          // y up the rows: a matrix
                                 {100, 900, 500, 100},  // north up: tie point and scale
                                 {-3.5, -2, 5, 7.25},
                                 {5, 0, -5, 1}};
    TempDir dir;
    for (const GeoExtent& e : extents) {
        WriteGeoTiff(dir / "g.tif", MakeImage(9, 5, 1, FloatSample), e);
        const std::optional<GeoExtent> back = ReadGeoExtent(dir / "g.tif");
        ASSERT_TRUE(back.has_value());
        EXPECT_NEAR(back->x0, e.x0, 1e-12);
        EXPECT_NEAR(back->y0, e.y0, 1e-12);
        EXPECT_NEAR(back->x1, e.x1, 1e-12);
        EXPECT_NEAR(back->y1, e.y1, 1e-12);
    }
    EXPECT_EQ(dir.List(), std::vector<std::string>{"g.tif"});
}

// gdalinfo, where it is installed, opens both the GeoTIFF and the r32 with
// its ENVI header and finds the same georeferencing.
TEST(ImageIO, GdalinfoReadsGeoTiffAndEnviHeader) {
    if (!CanUseTiff()) GTEST_SKIP() << "this build has no TIFF";
    if (std::system("gdalinfo --version >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "gdalinfo is not installed";
    TempDir dir;
    const Image image = MakeImage(9, 5, 1, FloatSample);
    const GeoExtent extent{100, 900, 500, 100};
    WriteGeoTiff(dir / "g.tif", image, extent);
    WriteR32(dir / "g.r32", image);
    WriteEnviHeader(dir / "g.hdr", image, extent, 2.0);
    for (const char* name : {"g.tif", "g.r32"}) {
        const std::string command =
            "gdalinfo '" + (dir / name).string() + "' > '" + (dir / "info.txt").string() + "' 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0) << name;
        const std::string info = ReadBytes(dir / "info.txt");
        EXPECT_TRUE(Contains(info, "Size is 9, 5")) << info;
        // Pixel areas: the first sample's point is the first pixel's centre.
        EXPECT_TRUE(Contains(info, "Origin = (75.000000000000000,1000.000000000000000)")) << info;
        EXPECT_TRUE(Contains(info, "Pixel Size = (50.000000000000000,-200.000000000000000)"))
            << info;
    }
}

TEST(ImageIO, R32AndEnviHeaderAreExact) {
    TempDir dir;
    WriteR32(dir / "h.r32", Image{2, 1, 1, {1.0f, -2.0f}});  // little-endian on every host
    EXPECT_EQ(ReadBytes(dir / "h.r32"), std::string("\x00\x00\x80\x3f\x00\x00\x00\xc0", 8));
    WriteR32(dir / "h.r32", Image{1, 1, 3, {0.5f, 2.0f, -0.0f}});
    EXPECT_EQ(ReadBytes(dir / "h.r32"),
              std::string("\x00\x00\x00\x3f\x00\x00\x00\x40\x00\x00\x00\x80", 12));
    WriteEnviHeader(dir / "h.hdr", Image{5, 3, 1, std::vector<float>(15)}, {10, 4, 12, 0}, 0.5);
    EXPECT_EQ(ReadBytes(dir / "h.hdr"),
              "ENVI\n"
              "description = {orogen height field; vertical scale 0.5}\n"
              "samples = 5\nlines = 3\nbands = 1\nheader offset = 0\n"
              "file type = ENVI Standard\ndata type = 4\ninterleave = bip\nbyte order = 0\n"
              "map info = {Arbitrary, 1.5, 1.5, 10, 4, 0.5, 2}\n"
              "band names = {height}\n");
    WriteEnviHeader(dir / "c.hdr", Image{2, 2, 3, std::vector<float>(12)}, {0, 0, 1, 1}, 1.0);
    const std::string rgb = ReadBytes(dir / "c.hdr");
    EXPECT_TRUE(Contains(rgb, "bands = 3\n")) << rgb;
    EXPECT_TRUE(Contains(rgb, "map info = {Arbitrary, 1.5, 1.5, 0, 0, 1, -1}\n")) << rgb;
    EXPECT_TRUE(Contains(rgb, "band names = {red, green, blue}\n")) << rgb;
}

}  // namespace
}  // namespace basekit::host::testing
