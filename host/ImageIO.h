// Image reading and writing for the reference host and the orogen tool:
// raw little-endian float32 (.r32) and unsigned 16-bit (.r16), 8- and 16-bit
// PNG, float OpenEXR, and TIFF (16-bit and float, GeoTIFF georeferencing).
//
// Every function reports failure by throwing std::runtime_error whose message
// names the file and the reason. Readers check sizes before allocating and
// never trust a size read from a file beyond kMaxImageSamples.
//
// Writers never leave a half-written file: they write "<path>.tmp-<random>"
// beside the target, created new (never through a symbolic link, never over
// a file that exists: O_EXCL | O_NOFOLLOW, CREATE_NEW on Windows) under a
// name no one can guess, flush it to disk, and rename it over the target only
// when the whole file was written and closed; a link at `path` is replaced,
// not followed. On failure the temporary is removed and the previous file at
// `path`, if any, is left untouched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace basekit::host {

// A float image. Samples are row-major and interleaved:
// samples[(y * width + x) * channels + c]. channels is 1 (height field) or
// 3 (RGB bitmap).
struct Image {
    int32_t width = 0, height = 0;
    int channels = 1;
    std::vector<float> samples;
};

// Samples laid out as in Image, owned elsewhere (a packet's): what the writers
// take, so that exporting a field copies nothing.
struct ImageView {
    int32_t width = 0, height = 0;
    int channels = 1;
    const float* samples = nullptr;

    ImageView() = default;
    ImageView(int32_t width, int32_t height, int channels, const float* samples)
        : width(width), height(height), channels(channels), samples(samples) {}
    ImageView(const Image& image)  // NOLINT: an image is always viewable
        : width(image.width),
          height(image.height),
          channels(image.channels),
          samples(image.samples.data()),
          count(image.samples.size()) {}

    // How many samples the owner holds; SIZE_MAX when it does not say.
    size_t count = SIZE_MAX;
};

// Runs body(i) once for every i in [0, count), on as many threads as it has;
// the caller returns when all have run. Empty: everything on the caller.
using ParallelFor = std::function<void(size_t count, const std::function<void(size_t)>& body)>;

// The most samples (width * height * channels) a reader allocates or a writer
// accepts.
inline constexpr uint64_t kMaxImageSamples = uint64_t{1} << 30;

// What this build can do. Without libpng, PNGs are written by the built-in
// encoder (WriteStoredPng) and cannot be read; without OpenEXR, EXR files can
// be neither read nor written. The functions that cannot work throw a
// runtime_error saying so.
bool CanReadPng();
bool CanUseExr();
// Without libtiff and libgeotiff, TIFF files can be neither read nor written.
bool CanUseTiff();

// What the 16-bit integer formats (PNG, .r16) map onto 0..65535: `low` to 0
// and `high` to 65535, linearly, clamped; NaN becomes 0, and so does every
// sample when high <= low. The default is the fixed mapping of 0..1.
struct ValueRange {
    double low = 0.0, high = 1.0;
};

// World positions of the first sample (x0, y0) and of the last (x1, y1): the
// samples are points, column i at x0 + i * (x1 - x0) / (width - 1).
struct GeoExtent {
    double x0 = 0.0, y0 = 0.0, x1 = 1.0, y1 = 1.0;
};

// Raw float32, little-endian on every host, row-major, `channels` floats per
// pixel; no header.
// Why no file can be made in `folder` (a new file is made and removed as the
// writers make theirs); empty when one can.
std::string CannotCreateFilesIn(const std::filesystem::path& folder);

// Text (a manifest, a network file) with the same guarantee as the images.
void WriteTextFile(const std::filesystem::path& path, const std::string& text);

void WriteR32(const std::filesystem::path& path, const ImageView& image);

// 16-bit PNG, grey for 1 channel and RGB for 3. Each value is clamped to 0..1
// and mapped to round(v * 65535); NaN becomes 0. No gamma or colour-space
// chunk is written. With libpng's zlib, the image is cut into bands of rows
// set by the width alone, each deflated on its own and joined into one zlib
// stream: the bytes do not depend on the threads that wrote them.
void WritePng16(const std::filesystem::path& path, const ImageView& image);

// 8-bit PNG preview, as WritePng16 but with round(v * 255).
void WritePng8(const std::filesystem::path& path, const ImageView& image);

// WritePng8 (bitDepth 8) or WritePng16 (16) with the bands on `parallel`.
// `range` as ValueRange says (16 bit; 8 bit maps it onto 0..255).
void WritePng(const std::filesystem::path& path, const ImageView& image, int bitDepth,
              const ParallelFor& parallel, const ValueRange& range = {});

// Raw unsigned 16-bit, little-endian, row-major, `channels` values per pixel,
// no header: the samples mapped as WritePng16 maps them (or by `range`).
void WriteR16(const std::filesystem::path& path, const ImageView& image,
              const ValueRange& range = {});

// The same PNG as WritePng8 (bitDepth 8) or WritePng16 (bitDepth 16) give, but
// with its image data in stored, uncompressed deflate blocks: the encoder of
// builds without libpng, available in every build.
void WriteStoredPng(const std::filesystem::path& path, const ImageView& image, int bitDepth);

// OpenEXR with 32-bit FLOAT pixels and ZIP compression: one channel named
// `heightChannel` for a height field, "R", "G", "B" for a bitmap. Values are
// stored bit-exactly. Blocks are compressed on OpenEXR's own threads
// (SetExrThreads).
void WriteExr(const std::filesystem::path& path, const ImageView& image,
              const std::string& heightChannel = "Y");

// Float32 TIFF (strips, deflate level 2 with the floating-point predictor),
// 1 or 3 samples per pixel, georeferenced through GeoTIFF tags: the samples
// are points (RasterPixelIsPoint) placed by `extent`, in an unnamed,
// user-defined projected system. Values are stored bit-exactly.
void WriteGeoTiff(const std::filesystem::path& path, const ImageView& image,
                  const GeoExtent& extent);

// The ENVI header a raster tool needs to open a raw float32 file of `image`'s
// size and channels (checked as the r32 writer checks them), written at
// `path` ("name.hdr" beside "name.r32"): the extent as its map info, the
// vertical scale in its description.
void WriteEnviHeader(const std::filesystem::path& path, const ImageView& image,
                     const GeoExtent& extent, double verticalScale);

// OpenEXR's process-wide thread count for compressing blocks (0: none). Set
// it before writing, not while a write runs. Does nothing without OpenEXR.
// Where the threads cannot be started, EXR files go without them and the
// reason is returned; empty otherwise.
std::string SetExrThreads(int threads);

// Reads a raw float32 file; its size must be exactly
// width * height * channels * 4 bytes.
Image ReadR32(const std::filesystem::path& path, int32_t width, int32_t height, int channels = 1);

// Reads a raw unsigned 16-bit file (as WriteR16 writes), values v / 65535;
// its size must be exactly width * height * channels * 2 bytes.
Image ReadR16(const std::filesystem::path& path, int32_t width, int32_t height, int channels = 1);

// Reads a TIFF: unsigned 8- or 16-bit samples scaled to 0..1 as a PNG's are,
// 32- or 64-bit float samples as stored. 1 or 2 samples per pixel give 1
// channel (the second is taken as alpha and dropped), 3 or more give RGB.
// Strips or tiles, contiguous or planar; any compression libtiff reads.
Image ReadTiff(const std::filesystem::path& path);

// The extent of a GeoTIFF's samples from its tie point and pixel scale or its
// transformation matrix, as WriteGeoTiff places them: pixel centres for an
// area raster (the GeoTIFF default), the points themselves for a point raster.
// Empty when the file has no georeferencing or a rotated one; throws when it
// cannot be read as a TIFF.
std::optional<GeoExtent> ReadGeoExtent(const std::filesystem::path& path);

// Reads an 8- or 16-bit PNG of any colour type, values scaled to 0..1 (v/255
// or v/65535). Grey and grey+alpha give 1 channel; RGB, RGBA and palette give
// 3. Alpha and transparency are dropped; grey of 1, 2 or 4 bits is scaled to
// 8 bits. Gamma and colour-space chunks are ignored: samples are taken as
// stored.
Image ReadPng(const std::filesystem::path& path);

// Reads a scanline or tiled OpenEXR file, half, float or uint channels:
// "R", "G", "B" give 3 channels (other channels such as "A" are ignored),
// otherwise "Y" gives 1 channel; neither is an error. The data window may have
// any origin; the image is the data window. A file with none of these but a
// single channel gives that channel (a height field written under another
// name).
Image ReadExr(const std::filesystem::path& path);

// Reads a .png, .exr, .tif or .tiff file (by extension, case-insensitive). A
// raw .r32 or .r16 file holds no size, so it is not read here (use ReadR32 or
// ReadR16). wantChannels 1 or 3
// converts as ConvertChannels does; 0 keeps the file's channels.
Image ReadImage(const std::filesystem::path& path, int wantChannels = 0);

// Returns `image` with `channels` (1 or 3) channels. Grey to RGB replicates
// the value; RGB to grey is the Rec. 601 luminance
// 0.299 R + 0.587 G + 0.114 B, computed in double so that a grey pixel
// (R = G = B) gives back exactly its value.
Image ConvertChannels(const Image& image, int channels);

}  // namespace basekit::host
