// Reading files written by other programs: every PNG colour type and depth,
// interlaced PNG, half-float and offset-window EXR, TIFFs of every sample
// type and layout orogen reads, GeoTIFF georeferencing. The PNGs are built here
// byte by byte so that their contents are known exactly.
#include <gtest/gtest.h>
#ifdef BASEKIT64_HAVE_OPENEXR
#include <Imath/half.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfOutputFile.h>
#endif
#ifdef BASEKIT64_HAVE_LIBPNG
#include <zlib.h>  // comes with libpng
#endif
#ifdef BASEKIT64_HAVE_TIFF
#include <geotiffio.h>
#include <geovalues.h>
#include <tiffio.h>
#include <xtiffio.h>
#endif

#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "imageio_test_support.h"

namespace basekit::host::testing {
namespace {

#ifdef BASEKIT64_HAVE_LIBPNG
// Grey, -, RGB, palette, grey + alpha, -, RGBA.
int SamplesPerPixel(int colourType) {
    return std::array{1, 0, 3, 1, 2, 0, 4}.at(size_t(colourType));
}

struct PngSpec {
    int width, height, bitDepth, colourType;
    std::vector<unsigned> samples;  // row-major, SamplesPerPixel per pixel, as stored
    std::string palette = {}, transparency = {};
    bool interlaced = false;
};

// One scanline (filter byte 0 and the packed samples) of the given pixels.
std::string Scanline(const PngSpec& layout, const std::vector<size_t>& pixels) {
    const int spp = SamplesPerPixel(layout.colourType);
    std::string line(1, '\0');
    unsigned bits = 0, used = 0;
    for (size_t p : pixels) {
        for (int s = 0; s < spp; ++s) {
            const unsigned v = layout.samples[p * spp + s];
            if (layout.bitDepth == 16) {
                line += char(v >> 8);
                line += char(v & 0xff);
            } else if (layout.bitDepth == 8) {
                line += char(v);
            } else {
                bits = (bits << layout.bitDepth) | v;
                used += layout.bitDepth;
                if (used == 8) {
                    line += char(bits);
                    bits = used = 0;
                }
            }
        }
    }
    if (used != 0) line += char(bits << (8 - used));
    return line;
}

// A complete PNG file for `layout`, interlaced with Adam7 if asked.
std::string MakePng(const PngSpec& layout) {
    std::string raw;
    const int passes[7][4] = {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4},
                              {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}};
    const int whole[4] = {0, 0, 1, 1};
    const int passCount = layout.interlaced ? 7 : 1;
    for (int pass = 0; pass < passCount; ++pass) {
        const int* p = layout.interlaced ? passes[pass] : whole;
        for (int y = p[1]; y < layout.height; y += p[3]) {
            std::vector<size_t> pixels;
            for (int x = p[0]; x < layout.width; x += p[2])
                pixels.push_back(size_t(y) * layout.width + x);
            if (!pixels.empty()) raw += Scanline(layout, pixels);
        }
    }
    std::string packed(compressBound(uLong(raw.size())), '\0');
    uLongf packedSize = uLongf(packed.size());
    EXPECT_EQ(compress(reinterpret_cast<Bytef*>(packed.data()), &packedSize,
                       reinterpret_cast<const Bytef*>(raw.data()), uLong(raw.size())),
              Z_OK);
    packed.resize(packedSize);

    std::string header = BigEndian32(uint32_t(layout.width)) + BigEndian32(uint32_t(layout.height));
    header += char(layout.bitDepth);
    header += char(layout.colourType);
    header += std::string(2, '\0');  // deflate, adaptive filtering
    header += char(layout.interlaced ? 1 : 0);
    std::string file = "\x89PNG\r\n\x1a\n" + PngChunk("IHDR", header);
    if (!layout.palette.empty()) file += PngChunk("PLTE", layout.palette);
    if (!layout.transparency.empty()) file += PngChunk("tRNS", layout.transparency);
    return file + PngChunk("IDAT", packed) + PngChunk("IEND", "");
}

struct PngCase {
    const char* name;
    PngSpec layout;
    int channels;
    std::vector<float> expected;
};

float V8(unsigned v) {
    return float(v) / 255.0f;
}
float V16(unsigned v) {
    return float(v) / 65535.0f;
}

std::vector<PngCase> PngCases() {
    const std::string palette("\x00\x00\x00\xff\x80\x01\x10\x20\x30", 9);  // 3 RGB entries
    const std::string tRnsGrey("\x00\x0a", 2), tRnsPalette("\x00\x80", 2);
    const std::string tRnsGrey2("\x00\x01", 2), tRnsRgb("\x00\x07\x00\x08\x00\x09", 6);
    return {
        {"Grey8", {3, 1, 8, 0, {0, 128, 255}}, 1, {0.0f, V8(128), 1.0f}},
        {"Grey16", {2, 2, 16, 0, {0, 1, 32768, 65535}}, 1, {0.0f, V16(1), V16(32768), 1.0f}},
        {"Grey1", {9, 1, 1, 0, {1, 0, 1, 1, 0, 0, 0, 0, 1}}, 1, {1, 0, 1, 1, 0, 0, 0, 0, 1}},
        {"Grey2", {4, 1, 2, 0, {0, 1, 2, 3}}, 1, {0.0f, V8(85), V8(170), 1.0f}},
        {"Grey4", {3, 1, 4, 0, {0, 7, 15}}, 1, {0.0f, V8(7 * 17), 1.0f}},
        {"GreyTransparency8", {2, 1, 8, 0, {10, 20}, "", tRnsGrey}, 1, {V8(10), V8(20)}},
        {"GreyAlpha8", {2, 1, 8, 4, {10, 0, 20, 255}}, 1, {V8(10), V8(20)}},
        {"GreyAlpha16", {1, 2, 16, 4, {1000, 0, 65535, 7}}, 1, {V16(1000), 1.0f}},
        {"Rgb8", {2, 1, 8, 2, {1, 2, 3, 253, 254, 255}}, 3,
         {V8(1), V8(2), V8(3), V8(253), V8(254), 1.0f}},
        {"Rgb16", {1, 1, 16, 2, {0, 32768, 65535}}, 3, {0.0f, V16(32768), 1.0f}},
        {"Rgba8", {1, 2, 8, 6, {1, 2, 3, 0, 4, 5, 6, 128}}, 3,
         {V8(1), V8(2), V8(3), V8(4), V8(5), V8(6)}},
        {"Rgba16", {1, 1, 16, 6, {100, 200, 300, 0}}, 3, {V16(100), V16(200), V16(300)}},
        {"Palette8", {3, 1, 8, 3, {2, 0, 1}, palette}, 3,
         {V8(0x10), V8(0x20), V8(0x30), 0.0f, 0.0f, 0.0f, 1.0f, V8(0x80), V8(1)}},
        {"Palette2Transparency", {3, 1, 2, 3, {1, 2, 0}, palette, tRnsPalette}, 3,
         {1.0f, V8(0x80), V8(1), V8(0x10), V8(0x20), V8(0x30), 0.0f, 0.0f, 0.0f}},
        {"Grey2Transparency", {2, 1, 2, 0, {3, 1}, "", tRnsGrey2}, 1, {1.0f, V8(85)}},
        {"Rgb8Transparency", {1, 1, 8, 2, {7, 8, 9}, "", tRnsRgb}, 3, {V8(7), V8(8), V8(9)}},
        // Samples and expectations of the interlaced ones: a pattern, made below.
        {"Interlaced8Rgb", {5, 3, 8, 2, {}, "", "", true}, 3, {}},
        {"Interlaced16Grey", {9, 10, 16, 0, {}, "", "", true}, 1, {}},
    };
}

class PngVariants : public ::testing::TestWithParam<PngCase> {};

TEST_P(PngVariants, ReadsExactValues) {
    PngCase c = GetParam();
    if (c.expected.empty()) {  // a pattern over the whole image
        const size_t n = size_t(c.layout.width) * c.layout.height * SamplesPerPixel(c.layout.colourType);
        const unsigned max = c.layout.bitDepth == 16 ? 65535 : 255;
        for (size_t i = 0; i < n; ++i) {
            const unsigned v = unsigned(i * 7919 % (max + 1));
            c.layout.samples.push_back(v);
            c.expected.push_back(float(v) / float(max));
        }
    }
    TempDir dir;
    const fs::path path = dir / "in.png";
    WriteBytes(path, MakePng(c.layout));
    const Image image = ReadPng(path);
    EXPECT_EQ(image.width, c.layout.width);
    EXPECT_EQ(image.height, c.layout.height);
    EXPECT_EQ(image.channels, c.channels);
    EXPECT_EQ(image.samples, c.expected);
}

INSTANTIATE_TEST_SUITE_P(AllColourTypes, PngVariants, ::testing::ValuesIn(PngCases()),
                         [](const ::testing::TestParamInfo<PngCase>& info) {
                             return std::string(info.param.name);
                         });
#else
TEST(PngVariants, ReadsExactValues) {
    GTEST_SKIP() << "this build has no libpng: PNG files are not read";
}
#endif  // BASEKIT64_HAVE_LIBPNG

#ifdef BASEKIT64_HAVE_OPENEXR
// An EXR written directly with OpenEXR: half or float channels, any window.
void WriteExrDirect(const fs::path& path, const Imath::Box2i& window,
                    const std::vector<std::string>& names, Imf::PixelType type,
                    std::vector<float> values) {
    const int width = window.max.x - window.min.x + 1;
    Imf::Header header(Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(31, 31)), window);
    Imf::FrameBuffer frame;
    std::vector<half> halves(values.begin(), values.end());
    const size_t channels = names.size();
    const size_t size = type == Imf::HALF ? sizeof(half) : sizeof(float);
    char* base = type == Imf::HALF ? reinterpret_cast<char*>(halves.data())
                                   : reinterpret_cast<char*>(values.data());
    for (size_t c = 0; c < channels; ++c) {
        header.channels().insert(names[c], Imf::Channel(type));
        frame.insert(names[c], Imf::Slice::Make(type, base + c * size, window, size * channels,
                                                size * channels * width));
    }
    Imf::OutputFile out(path.string().c_str(), header);
    out.setFrameBuffer(frame);
    out.writePixels(window.max.y - window.min.y + 1);
}

TEST(ExrRead, ChannelsTypesAndWindows) {
    using Box = Imath::Box2i;
    using V = Imath::V2i;
    const struct {
        const char* name;
        Box window;
        std::vector<std::string> channels;
        Imf::PixelType type;
        std::vector<float> values;
        int width, height, readChannels;
        std::vector<float> expected;  // empty: refused
    } cases[] = {
        {"half RGBA gives RGB",
         Box(V(0, 0), V(1, 0)),
         {"R", "G", "B", "A"},
         Imf::HALF,
         {0.5f, 1.0f, 2.0f, 0.0f, -0.25f, 0.125f, 65504.0f, 1.0f},
         2,
         1,
         3,
         {0.5f, 1.0f, 2.0f, -0.25f, 0.125f, 65504.0f}},
        {"half Y gives grey",
         Box(V(0, 0), V(0, 2)),
         {"Y"},
         Imf::HALF,
         {0.5f, 0.75f, -8.0f},
         1,
         3,
         1,
         {0.5f, 0.75f, -8.0f}},
        {"window away from the origin",
         Box(V(5, -3), V(7, -2)),
         {"Y"},
         Imf::FLOAT,
         {1, 2, 3, 4, 5, 6},
         3,
         2,
         1,
         {1, 2, 3, 4, 5, 6}},
        {"RGB wins over Y, others ignored",
         Box(V(0, 0), V(0, 0)),
         {"R", "G", "B", "Y", "Z"},
         Imf::FLOAT,
         {1, 2, 3, 4, 5},
         1,
         1,
         3,
         {1, 2, 3}},
        {"a single channel of another name",
         Box(V(0, 0), V(1, 0)),
         {"Z"},
         Imf::FLOAT,
         {7, 8},
         2,
         1,
         1,
         {7, 8}},
        {"neither Y nor RGB", Box(V(0, 0), V(0, 0)), {"R", "Z"}, Imf::FLOAT, {1, 2}, 0, 0, 0, {}},
    };
    TempDir dir;
    const fs::path path = dir / "in.exr";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WriteExrDirect(path, c.window, c.channels, c.type, c.values);
        if (c.expected.empty()) {
            const std::string message = ErrorOf([&] { ReadExr(path); });
            EXPECT_TRUE(Contains(message, "neither a Y channel nor R, G and B")) << message;
            EXPECT_TRUE(Contains(message, path.string())) << message;
            continue;
        }
        const Image image = ReadExr(path);
        EXPECT_EQ(image.width, c.width);
        EXPECT_EQ(image.height, c.height);
        EXPECT_EQ(image.channels, c.readChannels);
        EXPECT_EQ(image.samples, c.expected);
    }
}
#else
TEST(ExrRead, Formats) {
    GTEST_SKIP() << "this build has no OpenEXR";
}
#endif  // BASEKIT64_HAVE_OPENEXR

#ifdef BASEKIT64_HAVE_TIFF
struct TiffLayout {
    const char* name;
    uint16_t bits, format, perPixel, planar;
    uint32_t tile;  // 0: strips of 3 rows
    uint16_t compression = COMPRESSION_NONE;
};

// Sample s of pixel p, in the file's own units.
double TiffValue(const TiffLayout& t, size_t p, int s) {
    if (t.format == SAMPLEFORMAT_IEEEFP) return std::sin(double(p) * 0.7 + s) * 100.0 + 0.125 * s;
    if (t.format == SAMPLEFORMAT_INT) return double(int(p * 37 + s * 11) % 200) - 100.0;
    return double((p * 7919 + s * 131) % (t.bits == 8 ? 256 : t.bits == 16 ? 65536 : 100000));
}

// A TIFF made with libtiff itself (and GeoTIFF tags when `geo` sets them).
void WriteTiffDirect(const fs::path& path, const TiffLayout& t, uint32_t width, uint32_t height,
                     const std::function<void(TIFF*)>& geo = {}) {
    TIFF* tif = XTIFFOpen(path.string().c_str(), "w");
    ASSERT_NE(tif, nullptr);
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, t.perPixel);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, t.bits);
    TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, t.format);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, t.planar);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC,
                 t.perPixel >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, t.compression);
    if (t.perPixel == 2 || t.perPixel == 4) {
        const uint16_t extra = EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &extra);
    }
    if (t.tile) {
        TIFFSetField(tif, TIFFTAG_TILEWIDTH, t.tile);
        TIFFSetField(tif, TIFFTAG_TILELENGTH, t.tile);
    } else {
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 3u);
    }
    if (geo) geo(tif);
    const size_t bytes = t.bits / 8;
    const bool separate = t.planar == PLANARCONFIG_SEPARATE;
    auto put = [&](uint8_t* at, size_t p, int s) {
        const double v = TiffValue(t, p, s);
        if (t.format == SAMPLEFORMAT_IEEEFP && t.bits == 32) {
            const float f = float(v);
            std::memcpy(at, &f, 4);
        } else if (t.format == SAMPLEFORMAT_IEEEFP) {
            std::memcpy(at, &v, 8);
        } else if (t.bits == 16) {
            const uint16_t u = uint16_t(int(v));
            std::memcpy(at, &u, 2);
        } else if (t.bits == 32) {
            const uint32_t u = uint32_t(v);
            std::memcpy(at, &u, 4);
        } else {
            *at = uint8_t(v);
        }
    };
    const int planes = separate ? t.perPixel : 1, per = separate ? 1 : t.perPixel;
    for (int plane = 0; plane < planes; ++plane) {
        if (t.tile) {
            std::vector<uint8_t> tile(size_t(t.tile) * t.tile * per * bytes);
            for (uint32_t ty = 0; ty < height; ty += t.tile)
                for (uint32_t tx = 0; tx < width; tx += t.tile) {
                    std::fill(tile.begin(), tile.end(), 0);
                    for (uint32_t r = 0; r < t.tile && ty + r < height; ++r)
                        for (uint32_t c = 0; c < t.tile && tx + c < width; ++c)
                            for (int s = 0; s < per; ++s)
                                put(&tile[((size_t(r) * t.tile + c) * per + s) * bytes],
                                    size_t(ty + r) * width + tx + c, separate ? plane : s);
                    ASSERT_GE(TIFFWriteTile(tif, tile.data(), tx, ty, 0, uint16_t(plane)), 0);
                }
        } else {
            std::vector<uint8_t> line(size_t(width) * per * bytes);
            for (uint32_t y = 0; y < height; ++y) {
                for (uint32_t x = 0; x < width; ++x)
                    for (int s = 0; s < per; ++s)
                        put(&line[(size_t(x) * per + s) * bytes], size_t(y) * width + x,
                            separate ? plane : s);
                ASSERT_GE(TIFFWriteScanline(tif, line.data(), y, uint16_t(plane)), 0);
            }
        }
    }
    XTIFFClose(tif);
}

TEST(TiffRead, SampleTypesAndLayouts) {
    const TiffLayout layouts[] = {
        {"uint16 grey strips", 16, SAMPLEFORMAT_UINT, 1, PLANARCONFIG_CONTIG, 0},
        {"uint16 grey tiles", 16, SAMPLEFORMAT_UINT, 1, PLANARCONFIG_CONTIG, 16},
        {"uint16 grey deflate", 16, SAMPLEFORMAT_UINT, 1, PLANARCONFIG_CONTIG, 0,
         COMPRESSION_ADOBE_DEFLATE},
        {"uint8 grey + alpha", 8, SAMPLEFORMAT_UINT, 2, PLANARCONFIG_CONTIG, 0},
        {"float32 grey LZW", 32, SAMPLEFORMAT_IEEEFP, 1, PLANARCONFIG_CONTIG, 0, COMPRESSION_LZW},
        {"float32 RGB planes", 32, SAMPLEFORMAT_IEEEFP, 3, PLANARCONFIG_SEPARATE, 0},
        {"float32 RGB planes in tiles", 32, SAMPLEFORMAT_IEEEFP, 3, PLANARCONFIG_SEPARATE, 16},
        {"uint16 RGBA tiles", 16, SAMPLEFORMAT_UINT, 4, PLANARCONFIG_CONTIG, 16},
        {"float64 grey tiles", 64, SAMPLEFORMAT_IEEEFP, 1, PLANARCONFIG_CONTIG, 16},
    };
    constexpr uint32_t width = 37, height = 21;  // partial tiles and strips at the edges
    TempDir dir;
    const fs::path path = dir / "in.tif";
    for (const TiffLayout& t : layouts) {
        SCOPED_TRACE(t.name);
        WriteTiffDirect(path, t, width, height);
        const Image image = ReadTiff(path);
        const int channels = t.perPixel >= 3 ? 3 : 1;
        ASSERT_EQ(image.width, int32_t(width));
        ASSERT_EQ(image.height, int32_t(height));
        ASSERT_EQ(image.channels, channels);
        for (size_t p = 0; p < size_t(width) * height; ++p)
            for (int c = 0; c < channels; ++c) {
                const double v = TiffValue(t, p, c);
                const float expected = t.format == SAMPLEFORMAT_IEEEFP ? float(v)
                                       : t.bits == 16                  ? float(v) / 65535.0f
                                                                       : float(v) / 255.0f;
                ASSERT_EQ(image.samples[p * channels + c], expected) << "pixel " << p << "." << c;
            }
        EXPECT_EQ(ReadImage(fs::path(dir / "in.tif"), 1).channels, 1);
    }
    const TiffLayout refused[] = {{"int16", 16, SAMPLEFORMAT_INT, 1, PLANARCONFIG_CONTIG, 0},
                                {"uint32", 32, SAMPLEFORMAT_UINT, 1, PLANARCONFIG_CONTIG, 0}};
    for (const TiffLayout& t : refused) {
        SCOPED_TRACE(t.name);
        WriteTiffDirect(path, t, 4, 4);
        const std::string message = ErrorOf([&] { ReadTiff(path); });
        EXPECT_TRUE(Contains(message, "unsupported samples")) << message;
        EXPECT_TRUE(Contains(message, path.string())) << message;
    }
}

// The extent of files georeferenced as GIS tools write them.
TEST(TiffRead, GeoExtentOfAreaAndPointRasters) {
    const TiffLayout t{"uint16", 16, SAMPLEFORMAT_UINT, 1, PLANARCONFIG_CONTIG, 0};
    const double ties[6] = {0, 0, 0, 1000, 2000, 0}, scale[3] = {10, 5, 0};
    auto tieAndScale = [&](short rasterType) {
        return [&, rasterType](TIFF* tif) {
            TIFFSetField(tif, TIFFTAG_GEOTIEPOINTS, 6, ties);
            TIFFSetField(tif, TIFFTAG_GEOPIXELSCALE, 3, scale);
            if (rasterType == 0) return;  // no keys: an area raster
            GTIF* keys = GTIFNew(tif);
            GTIFKeySet(keys, GTRasterTypeGeoKey, TYPE_SHORT, 1, rasterType);
            GTIFWriteKeys(keys);
            GTIFFree(keys);
        };
    };
    const double rotated[16] = {1, 0.5, 0, 0, 0.5, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const double skewFree[16] = {2, 0, 0, -10, 0, 3, 0, 20, 0, 0, 0, 0, 0, 0, 0, 1};
    const struct {
        const char* name;
        std::function<void(TIFF*)> geo;
        std::optional<GeoExtent> expected;
    } cases[] = {
        // Pixel centres: half a pixel in from the tie point's corner.
        {"area, no keys", tieAndScale(0), GeoExtent{1005, 1997.5, 1005 + 10 * 10, 1997.5 - 4 * 5}},
        {"area", tieAndScale(RasterPixelIsArea),
         GeoExtent{1005, 1997.5, 1005 + 10 * 10, 1997.5 - 4 * 5}},
        {"point", tieAndScale(RasterPixelIsPoint), GeoExtent{1000, 2000, 1100, 1980}},
        {"matrix, area",
         [&](TIFF* tif) { TIFFSetField(tif, TIFFTAG_GEOTRANSMATRIX, 16, skewFree); },
         GeoExtent{-9, 21.5, -9 + 2 * 10, 21.5 + 3 * 4}},
        {"rotated", [&](TIFF* tif) { TIFFSetField(tif, TIFFTAG_GEOTRANSMATRIX, 16, rotated); },
         std::nullopt},
        {"none", {}, std::nullopt},
    };
    TempDir dir;
    const fs::path path = dir / "geo.tif";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WriteTiffDirect(path, t, 11, 5, c.geo);
        const std::optional<GeoExtent> extent = ReadGeoExtent(path);
        ASSERT_EQ(extent.has_value(), c.expected.has_value());
        if (!extent) continue;
        EXPECT_DOUBLE_EQ(extent->x0, c.expected->x0);
        EXPECT_DOUBLE_EQ(extent->y0, c.expected->y0);
        EXPECT_DOUBLE_EQ(extent->x1, c.expected->x1);
        EXPECT_DOUBLE_EQ(extent->y1, c.expected->y1);
    }
}
#else
TEST(TiffRead, SampleTypesAndLayouts) {
    GTEST_SKIP() << "this build has no TIFF";
}
#endif  // BASEKIT64_HAVE_TIFF

}  // namespace
}  // namespace basekit::host::testing
