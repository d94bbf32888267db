// Image reading and writing for the reference host and the orogen tool:
// raw little-endian float32 (.r32), 8- and 16-bit PNG and float OpenEXR.
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
void WritePng(const std::filesystem::path& path, const ImageView& image, int bitDepth,
              const ParallelFor& parallel);

// The same PNG as WritePng8 (bitDepth 8) or WritePng16 (bitDepth 16) give, but
// with its image data in stored, uncompressed deflate blocks: the encoder of
// builds without libpng, available in every build.
void WriteStoredPng(const std::filesystem::path& path, const ImageView& image, int bitDepth);

// OpenEXR with 32-bit FLOAT pixels and ZIP compression: one channel "Y" for a
// height field, "R", "G", "B" for a bitmap. Values are stored bit-exactly.
// Blocks are compressed on OpenEXR's own threads (SetExrThreads).
void WriteExr(const std::filesystem::path& path, const ImageView& image);

// OpenEXR's process-wide thread count for compressing blocks (0: none). Set
// it before writing, not while a write runs. Does nothing without OpenEXR.
void SetExrThreads(int threads);

// Reads a raw float32 file; its size must be exactly
// width * height * channels * 4 bytes.
Image ReadR32(const std::filesystem::path& path, int32_t width, int32_t height, int channels = 1);

// Reads an 8- or 16-bit PNG of any colour type, values scaled to 0..1 (v/255
// or v/65535). Grey and grey+alpha give 1 channel; RGB, RGBA and palette give
// 3. Alpha and transparency are dropped; grey of 1, 2 or 4 bits is scaled to
// 8 bits. Gamma and colour-space chunks are ignored: samples are taken as
// stored.
Image ReadPng(const std::filesystem::path& path);

// Reads a scanline or tiled OpenEXR file, half, float or uint channels:
// "R", "G", "B" give 3 channels (other channels such as "A" are ignored),
// otherwise "Y" gives 1 channel; neither is an error. The data window may have
// any origin; the image is the data window.
Image ReadExr(const std::filesystem::path& path);

// Reads a .png or .exr file (by extension, case-insensitive). An .r32 file
// holds no size, so it is not read here (use ReadR32). wantChannels 1 or 3
// converts as ConvertChannels does; 0 keeps the file's channels.
Image ReadImage(const std::filesystem::path& path, int wantChannels = 0);

// Returns `image` with `channels` (1 or 3) channels. Grey to RGB replicates
// the value; RGB to grey is the Rec. 601 luminance
// 0.299 R + 0.587 G + 0.114 B, computed in double so that a grey pixel
// (R = G = B) gives back exactly its value.
Image ConvertChannels(const Image& image, int channels);

}  // namespace basekit::host
