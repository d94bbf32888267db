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
struct PngSpec {
    int width, height, bitDepth, colourType;
    std::vector<unsigned> samples;  // row-major, SamplesPerPixel per pixel, as stored
    std::string palette = {}, transparency = {};
    bool interlaced = false;
};

// Grey, -, RGB, palette, grey + alpha, -, RGBA.
int SamplesPerPixel(const PngSpec& layout) {
    return std::array{1, 0, 3, 1, 2, 0, 4}.at(size_t(layout.colourType));
}

// A complete PNG file for `layout`, interlaced with Adam7 if asked: each
// scanline is filter byte 0 and its pixels' samples packed big-endian.
std::string MakePng(const PngSpec& layout) {
    const int passes[7][4] = {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4},
                              {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}};
    const int whole[4] = {0, 0, 1, 1}, spp = SamplesPerPixel(layout), depth = layout.bitDepth;
    std::string raw;
    for (int pass = 0; pass < (layout.interlaced ? 7 : 1); ++pass) {
        const int* p = layout.interlaced ? passes[pass] : whole;
        for (int y = p[1]; y < layout.height && p[0] < layout.width; y += p[3]) {
            raw += '\0';
            uint32_t bits = 0, used = 0;  // bits above the unwritten ones are ignored
            for (int x = p[0]; x < layout.width; x += p[2])
                for (int s = 0; s < spp; ++s) {
                    bits =
                        (bits << depth) | layout.samples[(size_t(y) * layout.width + x) * spp + s];
                    for (used += depth; used >= 8; used -= 8) raw += char(bits >> (used - 8));
                }
            if (used != 0) raw += char(bits << (8 - used));
        }
    }
    std::string packed(compressBound(uLong(raw.size())), '\0');
    uLongf packedSize = uLongf(packed.size());
    EXPECT_EQ(compress(reinterpret_cast<Bytef*>(packed.data()), &packedSize,
                       reinterpret_cast<const Bytef*>(raw.data()), uLong(raw.size())),
              Z_OK);
    packed.resize(packedSize);

    std::string header = BigEndian32(uint32_t(layout.width)) + BigEndian32(uint32_t(layout.height));
    // Deflate, adaptive filtering, Adam7 or none.
    header += {char(depth), char(layout.colourType), 0, 0, char(layout.interlaced)};
    std::string file = "\x89PNG\r\n\x1a\n" + PngChunk("IHDR", header);
    if (!layout.palette.empty()) file += PngChunk("PLTE", layout.palette);
    if (!layout.transparency.empty()) file += PngChunk("tRNS", layout.transparency);
    return file + PngChunk("IDAT", packed) + PngChunk("IEND", "");
}

TEST(PngRead, EveryColourTypeAndDepth) {
    TempDir dir;
    const fs::path path = dir / "in.png";
    // Empty samples and expectations: a pattern over the whole image.
    const auto check = [&](const char* name, PngSpec layout, int channels,
                           std::vector<float> expected) {
        SCOPED_TRACE(name);
        const size_t n = size_t(layout.width) * layout.height * SamplesPerPixel(layout);
        const unsigned max = layout.bitDepth == 16 ? 65535 : 255;
        if (layout.samples.empty())
            for (size_t i = 0; i < n; ++i) {
                layout.samples.push_back(unsigned(i * 7919 % (max + 1)));
                expected.push_back(float(layout.samples.back()) / float(max));
            }
        WriteBytes(path, MakePng(layout));
        const Image image = ReadPng(path);
        EXPECT_EQ(image.width, layout.width);
        EXPECT_EQ(image.height, layout.height);
        EXPECT_EQ(image.channels, channels);
        EXPECT_EQ(image.samples, expected);
    };
    const auto V8 = [](unsigned v) { return float(v) / 255.0f; };
    const auto V16 = [](unsigned v) { return float(v) / 65535.0f; };
    const std::string palette("\x00\x00\x00\xff\x80\x01\x10\x20\x30", 9);  // 3 RGB entries
    const std::string tRnsGrey("\x00\x0a", 2), tRnsPalette("\x00\x80", 2);
    const std::string tRnsGrey2("\x00\x01", 2), tRnsRgb("\x00\x07\x00\x08\x00\x09", 6);
    check("Grey8", {3, 1, 8, 0, {0, 128, 255}}, 1, {0.0f, V8(128), 1.0f});
    check("Grey16", {2, 2, 16, 0, {0, 1, 32768, 65535}}, 1, {0.0f, V16(1), V16(32768), 1.0f});
    check("Grey1", {9, 1, 1, 0, {1, 0, 1, 1, 0, 0, 0, 0, 1}}, 1, {1, 0, 1, 1, 0, 0, 0, 0, 1});
    check("Grey2", {4, 1, 2, 0, {0, 1, 2, 3}}, 1, {0.0f, V8(85), V8(170), 1.0f});
    check("Grey4", {3, 1, 4, 0, {0, 7, 15}}, 1, {0.0f, V8(7 * 17), 1.0f});
    check("GreyTransparency8", {2, 1, 8, 0, {10, 20}, "", tRnsGrey}, 1, {V8(10), V8(20)});
    check("GreyAlpha8", {2, 1, 8, 4, {10, 0, 20, 255}}, 1, {V8(10), V8(20)});
    check("GreyAlpha16", {1, 2, 16, 4, {1000, 0, 65535, 7}}, 1, {V16(1000), 1.0f});
    check("Rgb8", {2, 1, 8, 2, {1, 2, 3, 253, 254, 255}}, 3,
          {V8(1), V8(2), V8(3), V8(253), V8(254), 1.0f});
    check("Rgb16", {1, 1, 16, 2, {0, 32768, 65535}}, 3, {0.0f, V16(32768), 1.0f});
    check("Rgba8", {1, 2, 8, 6, {1, 2, 3, 0, 4, 5, 6, 128}}, 3,
          {V8(1), V8(2), V8(3), V8(4), V8(5), V8(6)});
    check("Rgba16", {1, 1, 16, 6, {100, 200, 300, 0}}, 3, {V16(100), V16(200), V16(300)});
    check("Palette8", {3, 1, 8, 3, {2, 0, 1}, palette}, 3,
          {V8(0x10), V8(0x20), V8(0x30), 0.0f, 0.0f, 0.0f, 1.0f, V8(0x80), V8(1)});
    check("Palette2Transparency", {3, 1, 2, 3, {1, 2, 0}, palette, tRnsPalette}, 3,
          {1.0f, V8(0x80), V8(1), V8(0x10), V8(0x20), V8(0x30), 0.0f, 0.0f, 0.0f});
    check("Grey2Transparency", {2, 1, 2, 0, {3, 1}, "", tRnsGrey2}, 1, {1.0f, V8(85)});
    check("Rgb8Transparency", {1, 1, 8, 2, {7, 8, 9}, "", tRnsRgb}, 3, {V8(7), V8(8), V8(9)});
    check("Interlaced8Rgb", {5, 3, 8, 2, {}, "", "", true}, 3, {});
    check("Interlaced16Grey", {9, 10, 16, 0, {}, "", "", true}, 1, {});
}
#else
TEST(PngRead, EveryColourTypeAndDepth) {
    GTEST_SKIP() << "this build has no libpng: PNG files are not read";
}
#endif  // BASEKIT64_HAVE_LIBPNG

#ifdef BASEKIT64_HAVE_OPENEXR
TEST(ExrRead, ChannelsTypesAndWindows) {
    struct Written {
        int x0, y0, x1, y1;    // the data window
        const char* channels;  // one letter each
        Imf::PixelType type;
        std::vector<float> values;
    };
    TempDir dir;
    const fs::path path = dir / "in.exr";
    // Empty expectations: refused.
    const auto check = [&](const char* name, Written f, int channels,
                           const std::vector<float>& expected) {
        SCOPED_TRACE(name);
        // Written directly with OpenEXR, interleaved, in a 32 x 32 display window.
        const Imath::Box2i window(Imath::V2i(f.x0, f.y0), Imath::V2i(f.x1, f.y1));
        const int width = f.x1 - f.x0 + 1, height = f.y1 - f.y0 + 1;
        const size_t count = std::strlen(f.channels), size = f.type == Imf::HALF ? 2 : 4;
        std::vector<half> halves(f.values.begin(), f.values.end());
        char* base = f.type == Imf::HALF ? reinterpret_cast<char*>(halves.data())
                                         : reinterpret_cast<char*>(f.values.data());
        Imf::Header header(Imath::Box2i(Imath::V2i(0, 0), Imath::V2i(31, 31)), window);
        Imf::FrameBuffer frame;
        for (size_t k = 0; k < count; ++k) {
            const std::string channel(1, f.channels[k]);
            header.channels().insert(channel, Imf::Channel(f.type));
            frame.insert(channel, Imf::Slice::Make(f.type, base + k * size, window, size * count,
                                                   size * count * width));
        }
        {
            Imf::OutputFile out(path.string().c_str(), header);
            out.setFrameBuffer(frame);
            out.writePixels(height);
        }
        if (expected.empty()) {
            const std::string message = ErrorOf([&] { ReadExr(path); });
            EXPECT_TRUE(Contains(message, "neither a Y channel nor R, G and B")) << message;
            EXPECT_TRUE(Contains(message, path.string())) << message;
            return;
        }
        const Image image = ReadExr(path);
        EXPECT_EQ(image.width, width);
        EXPECT_EQ(image.height, height);
        EXPECT_EQ(image.channels, channels);
        EXPECT_EQ(image.samples, expected);
    };
    check("half RGBA gives RGB",
          {0, 0, 1, 0, "RGBA", Imf::HALF, {0.5f, 1.0f, 2.0f, 0.0f, -0.25f, 0.125f, 65504.0f, 1.0f}},
          3, {0.5f, 1.0f, 2.0f, -0.25f, 0.125f, 65504.0f});
    check("half Y gives grey", {0, 0, 0, 2, "Y", Imf::HALF, {0.5f, 0.75f, -8.0f}}, 1,
          {0.5f, 0.75f, -8.0f});
    check("window away from the origin", {5, -3, 7, -2, "Y", Imf::FLOAT, {1, 2, 3, 4, 5, 6}}, 1,
          {1, 2, 3, 4, 5, 6});
    check("RGB wins over Y, others ignored", {0, 0, 0, 0, "RGBYZ", Imf::FLOAT, {1, 2, 3, 4, 5}}, 3,
          {1, 2, 3});
    check("a single channel of another name", {0, 0, 1, 0, "Z", Imf::FLOAT, {7, 8}}, 1, {7, 8});
    check("neither Y nor RGB", {0, 0, 0, 0, "RZ", Imf::FLOAT, {1, 2}}, 0, {});
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
    bool refused = false;
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
    // Strips are blocks as wide as the image.
    const uint32_t blockWidth = t.tile ? t.tile : width, blockHeight = t.tile ? t.tile : 3;
    if (t.tile) {
        TIFFSetField(tif, TIFFTAG_TILEWIDTH, t.tile);
        TIFFSetField(tif, TIFFTAG_TILELENGTH, t.tile);
    } else {
        TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, blockHeight);
    }
    if (geo) geo(tif);
    const size_t bytes = t.bits / 8;
    const bool separate = t.planar == PLANARCONFIG_SEPARATE;
    const int planes = separate ? t.perPixel : 1, per = separate ? 1 : t.perPixel;
    std::vector<uint8_t> block(size_t(blockWidth) * blockHeight * per * bytes);
    for (int plane = 0; plane < planes; ++plane)
        for (uint32_t by = 0; by < height; by += blockHeight)
            for (uint32_t bx = 0; bx < width; bx += blockWidth) {
                std::fill(block.begin(), block.end(), 0);
                for (uint32_t r = 0; r < blockHeight && by + r < height; ++r)
                    for (uint32_t c = 0; c < blockWidth && bx + c < width; ++c)
                        for (int s = 0; s < per; ++s) {
                            uint8_t* at = &block[((size_t(r) * blockWidth + c) * per + s) * bytes];
                            const double v =
                                TiffValue(t, size_t(by + r) * width + bx + c, separate ? plane : s);
                            const auto store = [at](auto x) { std::memcpy(at, &x, sizeof x); };
                            if (t.format == SAMPLEFORMAT_IEEEFP && t.bits == 32)
                                store(float(v));
                            else if (t.format == SAMPLEFORMAT_IEEEFP)
                                store(v);
                            else if (t.bits == 16)
                                store(uint16_t(int(v)));
                            else if (t.bits == 32)
                                store(uint32_t(v));
                            else
                                store(uint8_t(v));
                        }
                const tmsize_t size = tmsize_t(std::min(blockHeight, height - by)) * blockWidth *
                                      per * bytes;  // the last strip is short
                ASSERT_GE(
                    t.tile ? TIFFWriteTile(tif, block.data(), bx, by, 0, uint16_t(plane))
                           : TIFFWriteEncodedStrip(tif, TIFFComputeStrip(tif, by, uint16_t(plane)),
                                                   block.data(), size),
                    0);
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
        {"int16", 16, SAMPLEFORMAT_INT, 1, PLANARCONFIG_CONTIG, 0, COMPRESSION_NONE, true},
        {"uint32", 32, SAMPLEFORMAT_UINT, 1, PLANARCONFIG_CONTIG, 0, COMPRESSION_NONE, true},
    };
    constexpr uint32_t width = 37, height = 21;  // partial tiles and strips at the edges
    TempDir dir;
    const fs::path path = dir / "in.tif";
    for (const TiffLayout& t : layouts) {
        SCOPED_TRACE(t.name);
        WriteTiffDirect(path, t, width, height);
        if (t.refused) {
            const std::string message = ErrorOf([&] { ReadTiff(path); });
            EXPECT_TRUE(Contains(message, "unsupported samples")) << message;
            EXPECT_TRUE(Contains(message, path.string())) << message;
            continue;
        }
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
        EXPECT_EQ(ReadImage(path, 1).channels, 1);
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
