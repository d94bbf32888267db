#include "host/ImageIO.h"

#ifdef BASEKIT64_HAVE_OPENEXR
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>
#include <ImfStdIO.h>
#include <ImfThreading.h>
#endif
#ifdef BASEKIT64_HAVE_TIFF
#include <geotiffio.h>
#include <geovalues.h>
#include <tiffio.h>
#include <xtiffio.h>
#endif
#ifdef BASEKIT64_HAVE_LIBPNG
#include <png.h>
#include <zlib.h>
#endif

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <unistd.h>
#endif

namespace basekit::host {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& message) {
    throw std::runtime_error(message);
}

std::string Quote(const fs::path& path) {
    const std::u8string name = path.u8string();
    std::string quoted(1, '\'');
    quoted.append(name.begin(), name.end());
    return quoted += '\'';
}

std::string ErrnoText(int error) {
    return std::generic_category().message(error);
}

std::string OnFile(const char* verb, const char* format, const fs::path& path) {
    return std::string("cannot ") + verb + " " + format + " file " + Quote(path) + ": ";
}

std::FILE* OpenFile(const fs::path& path, bool forWriting) {
#ifdef _WIN32
    return _wfopen(path.c_str(), forWriting ? L"wb" : L"rb");
#else
    return std::fopen(path.c_str(), forWriting ? "wb" : "rb");
#endif
}

// A FIFO would block the open until a writer comes, a device may never end:
// only regular files (or links to them) are read.
void RequireRegularFile(const fs::path& path, const std::string& context) {
    std::error_code ec;
    const fs::file_status status = fs::status(path, ec);
    if (ec) Fail(context + ec.message());
    if (!fs::is_regular_file(status)) Fail(context + "not a regular file");
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Writes n bytes or throws.
void Put(std::FILE* file, const void* data, size_t n) {
    if (n != 0 && std::fwrite(data, 1, n, file) != n) Fail("write error: " + ErrnoText(errno));
}

// Flushes the file's data to the disk, so that the rename below never
// publishes a file whose contents are not yet stored.
bool SyncFile(std::FILE* file) {
#ifdef _WIN32
    return _commit(_fileno(file)) == 0;
#else
    return fsync(fileno(file)) == 0;
#endif
}

// Opens a new file for writing: fails when anything, a symbolic link
// included, is at `path` already (errno EEXIST), so that no one who can
// write the folder can point the write at another file.
std::FILE* CreateExclusive(const fs::path& path) {
#ifdef _WIN32
    HANDLE handle = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        errno = error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS ? EEXIST
                : error == ERROR_PATH_NOT_FOUND                             ? ENOENT
                                                                            : EACCES;
        return nullptr;
    }
    const int descriptor =
        _open_osfhandle(reinterpret_cast<intptr_t>(handle), _O_WRONLY | _O_BINARY);
    if (descriptor < 0) {
        CloseHandle(handle);
        return nullptr;
    }
    std::FILE* file = _fdopen(descriptor, "wb");
    if (!file) _close(descriptor);
    return file;
#else
    const int descriptor =
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (descriptor < 0) return nullptr;
    std::FILE* file = fdopen(descriptor, "wb");
    if (!file) {
        const int error = errno;
        close(descriptor);
        errno = error;
    }
    return file;
#endif
}

// 16 hex digits from the system's entropy: a name no other user can plant
// a link at beforehand.
std::string UnpredictableSuffix() {
    std::random_device entropy;
    const uint64_t bits = (uint64_t(entropy()) << 32) ^ entropy();
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(bits));
    return text;
}

// A new file `stem` + ".tmp-" + a random suffix, opened for writing.
std::FILE* CreateTemporary(const fs::path& stem, fs::path& created) {
    for (int attempt = 0; attempt < 8; ++attempt) {
        created = stem;
        created += ".tmp-" + UnpredictableSuffix();
        if (std::FILE* file = CreateExclusive(created)) return file;
        if (errno != EEXIST) return nullptr;
    }
    return nullptr;
}

// Throws unless the image is one a writer can store.
void CheckImage(const fs::path& path, const char* format, const ImageView& image) {
    std::string reason;
    const uint64_t count = uint64_t(std::max(image.width, 0)) *
                           uint64_t(std::max(image.height, 0)) *
                           uint64_t(std::max(image.channels, 0));
    if (image.width < 1 || image.height < 1) {
        reason = "invalid size " + std::to_string(image.width) + "x" + std::to_string(image.height);
    } else if (image.channels != 1 && image.channels != 3) {
        reason = "unsupported channel count " + std::to_string(image.channels) + " (1 or 3)";
    } else if (count > kMaxImageSamples) {
        reason = "image too large (" + std::to_string(count) + " samples)";
    } else if (image.samples == nullptr) {
        reason = "image has no samples";
    } else if (image.count != SIZE_MAX && image.count != count) {
        reason = "image has " + std::to_string(image.count) + " samples, expected " +
                 std::to_string(image.width) + "x" + std::to_string(image.height) + "x" +
                 std::to_string(image.channels) + " = " + std::to_string(count);
    }
    if (!reason.empty()) Fail(OnFile("write", format, path) + reason);
}

// Runs write(FILE*) on a temporary beside `path` and renames the temporary
// over `path` once it is complete, flushed and closed. On any failure the
// temporary is removed and the message names `path`.
template <class Writer>
void WriteAtomically(const fs::path& path, const char* format, Writer&& write) {
    fs::path temporary;
    std::FILE* file = CreateTemporary(path, temporary);
    if (file == nullptr) {
        Fail(OnFile("write", format, path) + "cannot create " + Quote(temporary) + ": " +
             ErrnoText(errno));
    }
    std::string error;
    try {
        write(file);
    } catch (const std::exception& e) {
        error = e.what();
    } catch (...) {
        std::fclose(file);
        std::error_code ignored;
        fs::remove(temporary, ignored);
        throw;
    }
    if (error.empty() && (std::fflush(file) != 0 || std::ferror(file) != 0)) {
        error = "write error: " + ErrnoText(errno);
    }
    if (error.empty() && !SyncFile(file)) error = "cannot flush to disk: " + ErrnoText(errno);
    if (std::fclose(file) != 0 && error.empty()) error = "cannot close: " + ErrnoText(errno);

    std::error_code ec;
    if (error.empty()) {
        fs::rename(temporary, path, ec);
        if (ec) error = "cannot rename " + Quote(temporary) + " over it: " + ec.message();
    }
    if (!error.empty()) {
        fs::remove(temporary, ec);
        Fail(OnFile("write", format, path) + error);
    }
}

unsigned Quantize(float value, unsigned max) {
    if (!(value > 0.0f)) return 0;  // also NaN
    if (value >= 1.0f) return max;
    return static_cast<unsigned>(std::lround(double(value) * max));  // the product is exact
}

bool IsFixedRange(const ValueRange& range) {
    return range.low == 0.0 && range.high == 1.0;
}

// Quantize of the sample's place in `range`; the fixed range takes Quantize's
// own path, so that its bytes are those of every earlier build.
unsigned QuantizeIn(float value, unsigned max, const ValueRange& range) {
    if (IsFixedRange(range)) return Quantize(value, max);
    if (!(range.high > range.low)) return 0;
    const double t = (double(value) - range.low) / (range.high - range.low);
    if (!(t > 0.0)) return 0;
    if (t >= 1.0) return max;
    return static_cast<unsigned>(std::lround(t * max));
}

// One row of PNG samples, big-endian as PNG stores them.
void QuantizeRow(const float* in, size_t count, int bitDepth, uint8_t* out,
                 const ValueRange& range) {
    for (size_t i = 0; i < count; ++i) {
        if (bitDepth == 16) {
            const unsigned v = QuantizeIn(in[i], 65535, range);
            out[2 * i] = uint8_t(v >> 8);
            out[2 * i + 1] = uint8_t(v & 0xff);
        } else {
            out[i] = uint8_t(QuantizeIn(in[i], 255, range));
        }
    }
}

const char* PngFormat(int bitDepth) {
    return bitDepth == 16 ? "PNG16" : "PNG8";
}

// ---------------------------------------------------------------------------
// PNG without libpng: the image data goes into stored deflate blocks, so no
// compressor is needed and the bytes are fully determined by the samples.

constexpr auto kCrcTable = [] {
    std::array<uint32_t, 256> table{};
    for (uint32_t n = 0; n < 256; ++n) {
        uint32_t c = n;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xedb88320u ^ (c >> 1) : c >> 1;
        table[n] = c;
    }
    return table;
}();

uint32_t Crc32(uint32_t crc, const uint8_t* data, size_t n) {
    crc = ~crc;
    for (size_t i = 0; i < n; ++i) crc = kCrcTable[(crc ^ data[i]) & 0xff] ^ (crc >> 8);
    return ~crc;
}

struct Adler32 {
    uint32_t a = 1, b = 0;
    void Add(const uint8_t* data, size_t n) {
        while (n > 0) {
            const size_t run = std::min<size_t>(n, 5552);  // no overflow before the modulo
            for (size_t i = 0; i < run; ++i) {
                a += data[i];
                b += a;
            }
            a %= 65521;
            b %= 65521;
            data += run;
            n -= run;
        }
    }
    uint32_t Value() const { return (b << 16) | a; }
};

void PutBigEndian32(std::vector<uint8_t>& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(uint8_t(v >> shift));
}

void PutChunk(std::FILE* file, const char* type, const std::vector<uint8_t>& data) {
    std::vector<uint8_t> bytes;
    bytes.reserve(data.size() + 12);
    PutBigEndian32(bytes, uint32_t(data.size()));
    bytes.insert(bytes.end(), type, type + 4);
    bytes.insert(bytes.end(), data.begin(), data.end());
    PutBigEndian32(bytes, Crc32(0, bytes.data() + 4, bytes.size() - 4));
    Put(file, bytes.data(), bytes.size());
}

// The signature and the IHDR chunk of a grey or RGB image.
void PutPngHeader(std::FILE* file, const ImageView& image, int bitDepth) {
    static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    Put(file, kSignature, sizeof kSignature);
    std::vector<uint8_t> header;
    PutBigEndian32(header, uint32_t(image.width));
    PutBigEndian32(header, uint32_t(image.height));
    header.push_back(uint8_t(bitDepth));
    header.push_back(image.channels == 1 ? 0 : 2);  // grey or RGB
    header.insert(header.end(), {0, 0, 0});         // deflate, filter set 0, not interlaced
    PutChunk(file, "IHDR", header);
}

void WriteStoredPngTo(std::FILE* file, const ImageView& image, int bitDepth,
                      const ValueRange& range) {
    PutPngHeader(file, image, bitDepth);

    // Scanlines are a filter byte (0: none) and the samples; the zlib stream
    // holds them in blocks of at most 65535 bytes and is cut into IDAT chunks.
    constexpr size_t kMaxBlock = 65535, kIdatBytes = size_t{1} << 20;
    const size_t rowSamples = size_t(image.width) * image.channels;
    const size_t rowBytes = 1 + rowSamples * (bitDepth / 8);
    const uint64_t total = uint64_t(rowBytes) * uint64_t(image.height);
    uint64_t stored = 0;
    Adler32 adler;
    std::vector<uint8_t> row(rowBytes, 0), block, idat = {0x78, 0x01};  // zlib header
    block.reserve(kMaxBlock);
    idat.reserve(kIdatBytes + kMaxBlock + 9);
    auto storeBlock = [&] {
        const bool last = stored + block.size() == total;
        const auto n = uint16_t(block.size()), inverse = uint16_t(~n);
        idat.insert(idat.end(), {uint8_t(last ? 1 : 0), uint8_t(n & 0xff), uint8_t(n >> 8),
                                 uint8_t(inverse & 0xff), uint8_t(inverse >> 8)});
        idat.insert(idat.end(), block.begin(), block.end());
        adler.Add(block.data(), block.size());
        stored += block.size();
        block.clear();
        if (last) PutBigEndian32(idat, adler.Value());
        if (idat.size() >= kIdatBytes || last) {
            PutChunk(file, "IDAT", idat);
            idat.clear();
        }
    };
    for (int32_t y = 0; y < image.height; ++y) {
        QuantizeRow(image.samples + size_t(y) * rowSamples, rowSamples, bitDepth, row.data() + 1,
                    range);
        for (size_t done = 0; done < rowBytes;) {
            const size_t take = std::min(rowBytes - done, kMaxBlock - block.size());
            block.insert(block.end(), row.begin() + done, row.begin() + done + take);
            done += take;
            if (block.size() == kMaxBlock) storeBlock();
        }
    }
    if (!block.empty()) storeBlock();
    PutChunk(file, "IEND", {});
}

void WriteStoredPngRange(const fs::path& path, const ImageView& image, int bitDepth,
                         const ValueRange& range) {
    if (bitDepth != 8 && bitDepth != 16) {
        Fail(OnFile("write", "PNG", path) + "unsupported bit depth " + std::to_string(bitDepth) +
             " (8 or 16)");
    }
    const char* format = PngFormat(bitDepth);
    CheckImage(path, format, image);
    WriteAtomically(path, format,
                    [&](std::FILE* file) { WriteStoredPngTo(file, image, bitDepth, range); });
}

#ifdef BASEKIT64_HAVE_LIBPNG
// ---------------------------------------------------------------------------
// PNG through libpng's classic API. libpng reports errors by longjmp, so each
// call that may fail runs inside a small function holding the setjmp and no
// object with a destructor; the C++ callers own every resource.

struct PngError {
    char message[200] = "unknown libpng error";
};

[[noreturn]] void PngOnError(png_structp png, png_const_charp message) {
    auto* error = static_cast<PngError*>(png_get_error_ptr(png));
    std::snprintf(error->message, sizeof error->message, "%s", message);
    png_longjmp(png, 1);
}

void PngOnWarning(png_structp, png_const_charp) {}

void PngReadData(png_structp png, png_bytep data, size_t n) {
    if (std::fread(data, 1, n, static_cast<std::FILE*>(png_get_io_ptr(png))) != n) {
        png_error(png, "file is truncated or unreadable");
    }
}

struct PngReadStruct {
    png_structp png = nullptr;
    png_infop info = nullptr;
    ~PngReadStruct() { png_destroy_read_struct(&png, &info, nullptr); }
};

// Rows per band: from the width alone, so that the file is the same bytes
// whatever the number of threads.
size_t PngBandRows(size_t rowBytes) {
    return std::max<size_t>(8, (size_t{1} << 18) / rowBytes);
}

// zlib level 2 with libpng's adaptive filter: on height fields about 14%
// larger than libpng's default (level 6) in well under its time.
constexpr int kPngLevel = 2;

struct PngBand {
    std::vector<uint8_t> bytes;  // raw deflate, ending on a byte boundary
    uLong adler = 0;
    uLong length = 0;  // uncompressed bytes
};

// PNG filters 0-4 of one row; `bpp` bytes per pixel.
void FilterRow(int filter, const uint8_t* row, const uint8_t* prior, size_t n, size_t bpp,
               uint8_t* out) {
    for (size_t i = 0; i < n; ++i) {
        const int a = i >= bpp ? row[i - bpp] : 0, b = prior[i], c = i >= bpp ? prior[i - bpp] : 0;
        int predicted = 0;
        switch (filter) {
            case 1:
                predicted = a;
                break;
            case 2:
                predicted = b;
                break;
            case 3:
                predicted = (a + b) / 2;
                break;
            case 4: {
                const int p = a + b - c, pa = std::abs(p - a), pb = std::abs(p - b),
                          pc = std::abs(p - c);
                predicted = pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
                break;
            }
            default:
                break;
        }
        out[i] = uint8_t(row[i] - predicted);
    }
}

// The filter whose bytes, read as signed, sum smallest (libpng's heuristic).
int ChooseFilter(const uint8_t* row, const uint8_t* prior, size_t n, size_t bpp,
                 std::vector<uint8_t>& scratch, uint8_t* out) {
    uint64_t best = UINT64_MAX;
    int chosen = 0;
    for (int filter = 0; filter < 5; ++filter) {
        FilterRow(filter, row, prior, n, bpp, scratch.data());
        uint64_t sum = 0;
        for (size_t i = 0; i < n; ++i) sum += uint64_t(std::abs(int(int8_t(scratch[i]))));
        if (sum < best) {
            best = sum;
            chosen = filter;
            std::memcpy(out, scratch.data(), n);
        }
    }
    return chosen;
}

void DeflateInto(z_stream& z, PngBand& band, int flush) {
    do {
        if (band.bytes.size() - z.total_out < 64) band.bytes.resize(band.bytes.size() * 2 + 64);
        z.next_out = band.bytes.data() + z.total_out;
        z.avail_out = uInt(band.bytes.size() - z.total_out);
        if (deflate(&z, flush) == Z_STREAM_ERROR) Fail("deflate failed");
    } while (z.avail_in > 0 || z.avail_out == 0);
}

// Rows [y0, y1) filtered and deflated; the last band finishes the stream.
void EncodePngBand(const ImageView& image, int bitDepth, int32_t y0, int32_t y1, bool last,
                   const ValueRange& range, PngBand& band) {
    const size_t rowSamples = size_t(image.width) * image.channels;
    const size_t rowBytes = rowSamples * (bitDepth / 8);
    const size_t bpp = size_t(image.channels) * (bitDepth / 8);
    std::vector<uint8_t> prior(rowBytes, 0), row(rowBytes), line(rowBytes + 1), scratch(rowBytes);
    if (y0 > 0)
        QuantizeRow(image.samples + size_t(y0 - 1) * rowSamples, rowSamples, bitDepth, prior.data(),
                    range);
    z_stream z{};
    if (deflateInit2(&z, kPngLevel, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        Fail("cannot start deflate");
    struct End {
        z_stream& z;
        ~End() { deflateEnd(&z); }
    } end{z};
    band.bytes.resize(deflateBound(&z, uLong((rowBytes + 1) * size_t(y1 - y0))) + 64);
    band.adler = adler32(0, nullptr, 0);
    for (int32_t y = y0; y < y1; ++y) {
        QuantizeRow(image.samples + size_t(y) * rowSamples, rowSamples, bitDepth, row.data(),
                    range);
        line[0] = uint8_t(ChooseFilter(row.data(), prior.data(), rowBytes, bpp, scratch,
                                       line.data() + 1));
        band.adler = adler32(band.adler, line.data(), uInt(line.size()));
        band.length += uLong(line.size());
        z.next_in = line.data();
        z.avail_in = uInt(line.size());
        DeflateInto(z, band, Z_NO_FLUSH);
        std::swap(prior, row);
    }
    DeflateInto(z, band, last ? Z_FINISH : Z_SYNC_FLUSH);
    band.bytes.resize(z.total_out);
}

void PutChunk(std::FILE* file, const char* type, const uint8_t* data, size_t n) {
    uint8_t head[8];
    for (int i = 0; i < 4; ++i) head[i] = uint8_t(uint32_t(n) >> (24 - 8 * i));
    std::memcpy(head + 4, type, 4);
    uLong crc = crc32(0, head + 4, 4);
    if (n > 0) crc = crc32(crc, data, uInt(n));
    uint8_t tail[4];
    for (int i = 0; i < 4; ++i) tail[i] = uint8_t(uint32_t(crc) >> (24 - 8 * i));
    Put(file, head, 8);
    Put(file, data, n);
    Put(file, tail, 4);
}

void EncodePng(const fs::path& path, const ImageView& image, int bitDepth,
               const ParallelFor& parallel, const ValueRange& range) {
    const char* format = PngFormat(bitDepth);
    CheckImage(path, format, image);
    const size_t rowBytes = 1 + size_t(image.width) * image.channels * (bitDepth / 8);
    const size_t bandRows = PngBandRows(rowBytes);
    const size_t bandCount = (size_t(image.height) + bandRows - 1) / bandRows;
    std::vector<PngBand> bands(bandCount);
    std::vector<std::string> errors(bandCount);
    auto encode = [&](size_t i) {
        try {
            const int32_t y0 = int32_t(i * bandRows);
            const int32_t y1 = int32_t(std::min<size_t>(size_t(image.height), (i + 1) * bandRows));
            EncodePngBand(image, bitDepth, y0, y1, i + 1 == bandCount, range, bands[i]);
        } catch (const std::exception& e) {
            errors[i] = e.what();
        } catch (...) {
            errors[i] = "out of memory";
        }
    };
    if (parallel)
        parallel(bandCount, encode);
    else
        for (size_t i = 0; i < bandCount; ++i) encode(i);
    for (const std::string& error : errors)
        if (!error.empty()) Fail(OnFile("write", format, path) + error);

    WriteAtomically(path, format, [&](std::FILE* file) {
        PutPngHeader(file, image, bitDepth);
        // One IDAT per band: the zlib header before the first, the checksum
        // of the whole after the last.
        uLong adler = adler32(0, nullptr, 0);
        for (size_t i = 0; i < bandCount; ++i) {
            std::vector<uint8_t>& bytes = bands[i].bytes;
            adler = adler32_combine(adler, bands[i].adler, z_off_t(bands[i].length));
            if (i == 0) bytes.insert(bytes.begin(), {0x78, 0x5e});  // deflate, 32 KiB, fast
            if (i + 1 == bandCount)
                for (int shift = 24; shift >= 0; shift -= 8)
                    bytes.push_back(uint8_t(adler >> shift));
            PutChunk(file, "IDAT", bytes.data(), bytes.size());
            std::vector<uint8_t>().swap(bytes);
        }
        PutChunk(file, "IEND", nullptr, 0);
    });
}

struct PngLayout {
    png_uint_32 width = 0, height = 0;
    int channels = 0, bitDepth = 0;
    size_t rowBytes = 0;
};

// The setjmp frame for the header: sets up the conversion to 8- or 16-bit grey
// or RGB without alpha and reports the resulting layout.
bool PngReadHeader(png_structp png, png_infop info, std::FILE* file, PngLayout* layout) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_set_read_fn(png, file, PngReadData);
    png_read_info(png, info);
    const int colorType = png_get_color_type(png, info);
    if (colorType == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
    if (colorType == PNG_COLOR_TYPE_GRAY && png_get_bit_depth(png, info) < 8) {
        png_set_expand_gray_1_2_4_to_8(png);
    }
    png_set_strip_alpha(png);  // also the alpha that expanding a palette with tRNS adds
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    layout->width = png_get_image_width(png, info);
    layout->height = png_get_image_height(png, info);
    layout->channels = png_get_channels(png, info);
    layout->bitDepth = png_get_bit_depth(png, info);
    layout->rowBytes = png_get_rowbytes(png, info);
    return true;
}

// The setjmp frame for the pixels, read into caller-owned rows.
bool PngReadPixels(png_structp png, png_bytepp rows) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_read_image(png, rows);
    png_read_end(png, nullptr);  // reaching IEND shows the file is whole
    return true;
}

#else

void EncodePng(const fs::path& path, const ImageView& image, int bitDepth, const ParallelFor&,
               const ValueRange& range) {
    WriteStoredPngRange(path, image, bitDepth, range);
}

#endif  // BASEKIT64_HAVE_LIBPNG

#ifndef BASEKIT64_HAVE_OPENEXR
std::string NoExr(const char* verb, const fs::path& path) {
    return OnFile(verb, "EXR", path) + "this build of orogen has no EXR support";
}
#else
// ---------------------------------------------------------------------------
// OpenEXR.

// The file name as OpenEXR takes it (UTF-8 on Windows).
std::string ExrName(const fs::path& path) {
#ifdef _WIN32
    const std::u8string name = path.u8string();
    return std::string(name.begin(), name.end());
#else
    return path.string();
#endif
}

std::vector<const char*> ExrChannelNames(int channels) {
    if (channels == 1) return {"Y"};
    return {"R", "G", "B"};
}
#endif  // BASEKIT64_HAVE_OPENEXR

#ifndef BASEKIT64_HAVE_TIFF
std::string NoTiff(const char* verb, const fs::path& path) {
    return OnFile(verb, "TIFF", path) + "this build of orogen has no TIFF support";
}
#else
// ---------------------------------------------------------------------------
// TIFF through libtiff, its GeoTIFF tags and keys through libgeotiff. Files
// are read through a FILE* of ours and written into memory first, so that
// the atomic writer puts the bytes; libtiff's messages are collected per
// handle instead of going to stderr.

// zlib level for the strips, as the PNGs': on the demo's height fields about
// 5% larger than libtiff's default level 6, written in half the time.
constexpr int kTiffLevel = 2;

// The GeoTIFF tags, known to libtiff once its tag extender is set.
void RegisterGeoTiffTags() {
    static const bool registered = (XTIFFInitialize(), true);
    static_cast<void>(registered);
}

int TiffOnError(TIFF*, void* user, const char*, const char* format, va_list args) {
    auto* message = static_cast<std::string*>(user);
    if (message->empty()) {
        char text[300];
        std::vsnprintf(text, sizeof text, format, args);
        *message = text;
    }
    return 1;
}

int TiffOnWarning(TIFF*, void*, const char*, const char*, va_list) {
    return 1;
}

// libgeotiff's complaints about damaged keys: a damaged key reads as absent.
void GeoTiffQuiet(GTIF*, int, const char*, ...) {}

// The FILE* a TIFF handle reads from or writes into, and where it stands.
struct TiffStream {
    std::FILE* file = nullptr;
    bool writing = false;
    uint64_t size = 0, at = 0;  // writing: the bytes written so far
    std::string error;
};

tmsize_t TiffRead(thandle_t handle, void* data, tmsize_t n) {
    auto* s = static_cast<TiffStream*>(handle);
    if (s->writing || n < 0) return 0;
    const size_t got = std::fread(data, 1, size_t(n), s->file);
    s->at += got;
    return tmsize_t(got);
}

tmsize_t TiffWrite(thandle_t handle, void* data, tmsize_t n) {
    auto* s = static_cast<TiffStream*>(handle);
    if (!s->writing || n < 0) return 0;
    const size_t put = std::fwrite(data, 1, size_t(n), s->file);
    s->at += put;
    s->size = std::max(s->size, s->at);
    return tmsize_t(put);
}

toff_t TiffSeek(thandle_t handle, toff_t offset, int whence) {
    auto* s = static_cast<TiffStream*>(handle);
    const uint64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? s->at : s->size;
    const uint64_t to = base + offset;
#ifdef _WIN32
    if (_fseeki64(s->file, int64_t(to), SEEK_SET) != 0) return toff_t(-1);
#else
    if (fseeko(s->file, off_t(to), SEEK_SET) != 0) return toff_t(-1);
#endif
    s->at = to;
    return to;
}

int TiffClose(thandle_t) {
    return 0;  // the FILE* is ours
}

toff_t TiffSize(thandle_t handle) {
    return static_cast<TiffStream*>(handle)->size;
}

int TiffMap(thandle_t, void**, toff_t*) {
    return 0;
}

void TiffUnmap(thandle_t, void*, toff_t) {}

struct TiffCloser {
    void operator()(TIFF* tif) const { TIFFClose(tif); }
};
using TiffPtr = std::unique_ptr<TIFF, TiffCloser>;

TIFF* OpenTiff(const char* mode, TiffStream& stream) {
    RegisterGeoTiffTags();
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    if (!options) return nullptr;
    TIFFOpenOptionsSetErrorHandlerExtR(options, TiffOnError, &stream.error);
    TIFFOpenOptionsSetWarningHandlerExtR(options, TiffOnWarning, nullptr);
    TIFF* tif = TIFFClientOpenExt("orogen", mode, &stream, TiffRead, TiffWrite, TiffSeek, TiffClose,
                                  TiffSize, TiffMap, TiffUnmap, options);
    TIFFOpenOptionsFree(options);
    return tif;
}

// Whether every value of the first directory lies inside the file: libtiff
// passes over a tag whose value was cut off, so a truncated file would
// otherwise read as a whole one.
bool TiffDirectoryIsWhole(std::FILE* file, uint64_t size) {
    uint8_t head[16] = {};
    if (size < 8 || std::fread(head, 1, 16, file) < 8) return false;
    const bool little = head[0] == 'I';
    auto number = [&](const uint8_t* at, int bytes) {
        uint64_t v = 0;
        for (int i = 0; i < bytes; ++i) v |= uint64_t(at[little ? i : bytes - 1 - i]) << (8 * i);
        return v;
    };
    const bool big = number(head + 2, 2) == 43;  // BigTIFF: 8-byte counts and offsets
    const int word = big ? 8 : 4;
    const uint64_t first = big ? number(head + 8, 8) : number(head + 4, 4);
    uint8_t count[8] = {};
    if (first > size || std::fseek(file, long(first), SEEK_SET) != 0 ||
        std::fread(count, 1, big ? 8 : 2, file) != size_t(big ? 8 : 2))
        return false;
    const uint64_t entries = number(count, big ? 8 : 2);
    const size_t entryBytes = big ? 20 : 12;
    if (entries > (size - first) / entryBytes) return false;
    std::vector<uint8_t> table(size_t(entries) * entryBytes);
    if (std::fread(table.data(), 1, table.size(), file) != table.size()) return false;
    static const uint8_t kTypeBytes[19] = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4, 8, 4, 8, 4, 0, 0, 8, 8, 8};
    for (uint64_t e = 0; e < entries; ++e) {
        const uint8_t* entry = table.data() + e * entryBytes;
        const uint64_t type = number(entry + 2, 2);
        const uint64_t n = number(entry + 4, word);
        if (type >= 19 || kTypeBytes[type] == 0) continue;  // unknown types are not ours to judge
        if (n > size / kTypeBytes[type]) return false;
        const uint64_t bytes = n * kTypeBytes[type];
        if (bytes > uint64_t(word)) {
            const uint64_t at = number(entry + 4 + word, word);
            if (at > size || bytes > size - at) return false;
        }
    }
    return std::fseek(file, 0, SEEK_SET) == 0;
}

// A TIFF opened for reading, or a failure naming the file.
struct TiffReader {
    FilePtr file;
    TiffStream stream;
    TiffPtr tif;

    TiffReader(const fs::path& path, const std::string& context) {
        std::error_code ec;
        stream.size = fs::file_size(path, ec);
        if (ec) Fail(context + ec.message());
        file.reset(OpenFile(path, false));
        if (!file) Fail(context + ErrnoText(errno));
        stream.file = file.get();
        if (!TiffDirectoryIsWhole(file.get(), stream.size))
            Fail(context + "not a TIFF file, or it is truncated");
        // libtiff reads the header before the handle exists: no error
        // handler but ours may speak, so the reason comes from the stream.
        tif.reset(OpenTiff("rm", stream));
        if (!tif) Fail(context + (stream.error.empty() ? "not a TIFF file" : stream.error));
    }
    std::string Error(const char* fallback) const {
        return stream.error.empty() ? fallback : stream.error;
    }
};

// One sample, in the host's byte order as libtiff hands it over.
float TiffSample(const uint8_t* at, uint16_t format, uint16_t bits) {
    if (format == SAMPLEFORMAT_IEEEFP && bits == 32) {
        float v;
        std::memcpy(&v, at, 4);
        return v;
    }
    if (format == SAMPLEFORMAT_IEEEFP) {
        double v;
        std::memcpy(&v, at, 8);
        return float(v);
    }
    if (bits == 16) {
        uint16_t v;
        std::memcpy(&v, at, 2);
        return float(v) / 65535.0f;
    }
    return float(*at) / 255.0f;
}
#endif  // BASEKIT64_HAVE_TIFF

}  // namespace

bool CanReadPng() {
#ifdef BASEKIT64_HAVE_LIBPNG
    return true;
#else
    return false;
#endif
}

bool CanUseTiff() {
#ifdef BASEKIT64_HAVE_TIFF
    return true;
#else
    return false;
#endif
}

bool CanUseExr() {
#ifdef BASEKIT64_HAVE_OPENEXR
    return true;
#else
    return false;
#endif
}

std::string CannotCreateFilesIn(const fs::path& folder) {
    fs::path probe;
    std::FILE* file = CreateTemporary(folder / ".orogen-probe", probe);
    if (!file) return ErrnoText(errno);
    std::fclose(file);
    std::error_code ignored;
    fs::remove(probe, ignored);
    return {};
}

void WriteTextFile(const fs::path& path, const std::string& text) {
    WriteAtomically(path, "text", [&](std::FILE* file) { Put(file, text.data(), text.size()); });
}

void WriteR32(const fs::path& path, const ImageView& image) {
    CheckImage(path, "r32", image);
    const size_t count = size_t(image.width) * size_t(image.height) * size_t(image.channels);
    WriteAtomically(path, "r32", [&](std::FILE* file) {
        if constexpr (std::endian::native == std::endian::little) {
            Put(file, image.samples, count * sizeof(float));  // already the file's bytes
            return;
        }
        constexpr size_t kChunk = size_t{1} << 16;
        std::vector<unsigned char> bytes;
        for (size_t start = 0; start < count; start += kChunk) {
            const size_t n = std::min(kChunk, count - start);
            bytes.resize(4 * n);
            for (size_t i = 0; i < n; ++i) {  // little-endian whatever the host's order
                const uint32_t bits = std::bit_cast<uint32_t>(image.samples[start + i]);
                for (int b = 0; b < 4; ++b) bytes[4 * i + b] = (unsigned char)(bits >> (8 * b));
            }
            Put(file, bytes.data(), bytes.size());
        }
    });
}

void WritePng16(const fs::path& path, const ImageView& image) {
    EncodePng(path, image, 16, {}, {});
}

void WritePng8(const fs::path& path, const ImageView& image) {
    EncodePng(path, image, 8, {}, {});
}

void WritePng(const fs::path& path, const ImageView& image, int bitDepth,
              const ParallelFor& parallel, const ValueRange& range) {
    if (bitDepth != 8 && bitDepth != 16)
        Fail(OnFile("write", "PNG", path) + "unsupported bit depth " + std::to_string(bitDepth) +
             " (8 or 16)");
    EncodePng(path, image, bitDepth, parallel, range);
}

void WriteR16(const fs::path& path, const ImageView& image, const ValueRange& range) {
    CheckImage(path, "r16", image);
    const size_t count = size_t(image.width) * size_t(image.height) * size_t(image.channels);
    WriteAtomically(path, "r16", [&](std::FILE* file) {
        constexpr size_t kChunk = size_t{1} << 16;
        std::vector<unsigned char> bytes;
        for (size_t start = 0; start < count; start += kChunk) {
            const size_t n = std::min(kChunk, count - start);
            bytes.resize(2 * n);
            for (size_t i = 0; i < n; ++i) {
                const unsigned v = QuantizeIn(image.samples[start + i], 65535, range);
                bytes[2 * i] = (unsigned char)(v & 0xff);
                bytes[2 * i + 1] = (unsigned char)(v >> 8);
            }
            Put(file, bytes.data(), bytes.size());
        }
    });
}

void WriteStoredPng(const fs::path& path, const ImageView& image, int bitDepth) {
    WriteStoredPngRange(path, image, bitDepth, {});
}

std::string SetExrThreads(int threads) {
#ifdef BASEKIT64_HAVE_OPENEXR
    try {
        if (Imf::globalThreadCount() != std::max(threads, 0))
            Imf::setGlobalThreadCount(std::max(threads, 0));
    } catch (const std::exception& e) {
        try {
            Imf::setGlobalThreadCount(0);
        } catch (const std::exception&) {
            // none were started: nothing to stop
        }
        return e.what();
    }
#else
    static_cast<void>(threads);
#endif
    return {};
}

void WriteExr(const fs::path& path, const ImageView& image, const std::string& heightChannel) {
#ifndef BASEKIT64_HAVE_OPENEXR
    static_cast<void>(image);
    static_cast<void>(heightChannel);
    Fail(NoExr("write", path));
#else
    CheckImage(path, "EXR", image);
    if (image.channels == 1 && heightChannel.empty())
        Fail(OnFile("write", "EXR", path) + "the height channel has no name");
    // OpenEXR swallows errors raised while it finishes a file in its
    // destructor, so encode in memory and write the bytes ourselves.
    std::string encoded;
    try {
        Imf::Header header(image.width, image.height);
        header.compression() = Imf::ZIP_COMPRESSION;
        Imf::FrameBuffer frame;
        const size_t xStride = sizeof(float) * image.channels;
        const size_t yStride = xStride * image.width;
        char* base = reinterpret_cast<char*>(const_cast<float*>(image.samples));
        std::vector<const char*> names = ExrChannelNames(image.channels);
        if (image.channels == 1) names[0] = heightChannel.c_str();
        for (size_t c = 0; c < names.size(); ++c) {
            header.channels().insert(names[c], Imf::Channel(Imf::FLOAT));
            frame.insert(names[c],
                         Imf::Slice(Imf::FLOAT, base + c * sizeof(float), xStride, yStride));
        }
        Imf::StdOSStream stream;
        {
            Imf::OutputFile out(stream, header);
            out.setFrameBuffer(frame);
            out.writePixels(image.height);
        }
        encoded = stream.str();
    } catch (const std::exception& e) {
        Fail(OnFile("write", "EXR", path) + e.what());
    }
    WriteAtomically(path, "EXR",
                    [&](std::FILE* file) { Put(file, encoded.data(), encoded.size()); });
#endif
}

namespace {

// A headerless little-endian file of `bytes` (2 or 4) per sample: its size
// must be exactly that of width x height x channels samples.
Image ReadRaw(const fs::path& path, const char* format, int bytes, int32_t width, int32_t height,
              int channels) {
    const std::string context = OnFile("read", format, path);
    if (width < 1 || height < 1) {
        Fail(context + "invalid size " + std::to_string(width) + "x" + std::to_string(height));
    }
    if (channels != 1 && channels != 3) {
        Fail(context + "unsupported channel count " + std::to_string(channels) + " (1 or 3)");
    }
    const uint64_t count = uint64_t(width) * uint64_t(height) * uint64_t(channels);
    if (count > kMaxImageSamples) Fail(context + "image too large");

    RequireRegularFile(path, context);
    std::error_code ec;
    const uintmax_t actual = fs::file_size(path, ec);
    if (ec) Fail(context + ec.message());
    if (actual != bytes * count) {
        Fail(context + "size is " + std::to_string(actual) + " bytes, expected " +
             std::to_string(bytes * count) + " for " + std::to_string(width) + "x" +
             std::to_string(height) + "x" + std::to_string(channels) +
             (bytes == 4 ? " float32" : " uint16") + " samples");
    }
    FilePtr file(OpenFile(path, false));
    if (!file) Fail(context + ErrnoText(errno));

    Image image{width, height, channels, std::vector<float>(count)};
    constexpr size_t kChunk = size_t{1} << 16;
    std::vector<unsigned char> buffer;
    for (size_t start = 0; start < count; start += kChunk) {
        const size_t n = std::min<size_t>(kChunk, count - start);
        buffer.resize(bytes * n);
        if (std::fread(buffer.data(), 1, buffer.size(), file.get()) != buffer.size()) {
            Fail(context + "file is truncated or unreadable");
        }
        for (size_t i = 0; i < n; ++i) {
            uint32_t bits = 0;
            for (int b = 0; b < bytes; ++b) bits |= uint32_t(buffer[bytes * i + b]) << (8 * b);
            image.samples[start + i] =
                bytes == 4 ? std::bit_cast<float>(bits) : float(bits) / 65535.0f;
        }
    }
    return image;
}

}  // namespace

Image ReadR32(const fs::path& path, int32_t width, int32_t height, int channels) {
    return ReadRaw(path, "r32", 4, width, height, channels);
}

Image ReadR16(const fs::path& path, int32_t width, int32_t height, int channels) {
    return ReadRaw(path, "r16", 2, width, height, channels);
}

Image ReadPng(const fs::path& path) {
    const std::string context = OnFile("read", "PNG", path);
    RequireRegularFile(path, context);
    FilePtr file(OpenFile(path, false));
    if (!file) Fail(context + ErrnoText(errno));
#ifndef BASEKIT64_HAVE_LIBPNG
    Fail(context + "this build of orogen cannot read PNG files (it only writes them)");
#else

    PngError error;
    PngReadStruct s;
    s.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &error, PngOnError, PngOnWarning);
    if (s.png != nullptr) s.info = png_create_info_struct(s.png);
    if (s.info == nullptr) Fail(context + "cannot initialise libpng");

    PngLayout layout;
    if (!PngReadHeader(s.png, s.info, file.get(), &layout)) Fail(context + error.message);
    const uint64_t count = uint64_t(layout.width) * layout.height * layout.channels;
    if (layout.width < 1 || layout.height < 1 || count > kMaxImageSamples) {
        Fail(context + "image too large (" + std::to_string(layout.width) + "x" +
             std::to_string(layout.height) + ")");
    }
    if ((layout.channels != 1 && layout.channels != 3) ||
        (layout.bitDepth != 8 && layout.bitDepth != 16) ||
        layout.rowBytes != size_t(layout.width) * layout.channels * (layout.bitDepth / 8)) {
        Fail(context + "unsupported pixel layout");
    }

    std::vector<png_byte> pixels(layout.rowBytes * layout.height);
    std::vector<png_bytep> rows(layout.height);
    for (size_t y = 0; y < rows.size(); ++y) rows[y] = pixels.data() + y * layout.rowBytes;
    if (!PngReadPixels(s.png, rows.data())) Fail(context + error.message);

    Image image{int32_t(layout.width), int32_t(layout.height), layout.channels,
                std::vector<float>(count)};
    for (size_t i = 0; i < count; ++i) {
        image.samples[i] =
            layout.bitDepth == 16
                ? float((unsigned(pixels[2 * i]) << 8) | pixels[2 * i + 1]) / 65535.0f
                : float(pixels[i]) / 255.0f;
    }
    return image;
#endif
}

Image ReadExr(const fs::path& path) {
#ifndef BASEKIT64_HAVE_OPENEXR
    Fail(NoExr("read", path));
#else
    RequireRegularFile(path, OnFile("read", "EXR", path));
    try {
        Imf::InputFile file(ExrName(path).c_str());
        const Imf::Header& header = file.header();
        const Imath::Box2i window = header.dataWindow();
        const int64_t width = int64_t(window.max.x) - window.min.x + 1;
        const int64_t height = int64_t(window.max.y) - window.min.y + 1;
        if (width < 1 || height < 1) Fail("empty data window");

        const Imf::ChannelList& list = header.channels();
        const bool rgb = list.findChannel("R") && list.findChannel("G") && list.findChannel("B");
        std::vector<const char*> names = ExrChannelNames(rgb ? 3 : 1);
        // A height field written under a name of its own is its only channel.
        if (!rgb && !list.findChannel("Y")) {
            Imf::ChannelList::ConstIterator second = list.begin();
            if (second != list.end()) ++second;
            if (list.begin() == list.end() || second != list.end())
                Fail("has neither a Y channel nor R, G and B channels, nor a single channel");
            names[0] = list.begin().name();
        }
        const int channels = rgb ? 3 : 1;
        for (const char* name : names) {
            const Imf::Channel* channel = list.findChannel(name);
            if (channel->xSampling != 1 || channel->ySampling != 1) {
                Fail(std::string("channel ") + name + " is subsampled");
            }
        }
        if (uint64_t(width) * uint64_t(height) * channels > kMaxImageSamples) {
            Fail("image too large (" + std::to_string(width) + "x" + std::to_string(height) + ")");
        }

        // A file that could hold its pixels at deflate's best ratio is read at
        // once; one whose header claims more is read a band at a time, so that
        // a header alone never allocates what its data cannot fill.
        constexpr uint64_t kDeflateBestRatio = 1100;  // deflate shrinks no data more
        const uint64_t bytes = fs::file_size(path);
        const uint64_t total = uint64_t(width) * uint64_t(height) * channels;
        const bool plausible = total * 2 <= bytes * kDeflateBestRatio;
        const int64_t rowSamples = width * channels;
        // Bands of about 4 Mi samples, whole chunks where they hold many.
        int64_t band = std::max<int64_t>(1, (int64_t{1} << 22) / rowSamples);
        if (band >= 256) band -= band % 256;
        if (plausible) band = height;
        Image image{int32_t(width), int32_t(height), channels, {}};
        for (int64_t first = 0; first < height; first += band) {
            const int64_t last = std::min(height, first + band) - 1;
            image.samples.resize(size_t((last + 1) * rowSamples));
            Imf::FrameBuffer frame;
            const size_t xStride = sizeof(float) * channels;
            const size_t yStride = xStride * size_t(width);
            char* base = reinterpret_cast<char*>(image.samples.data());
            for (size_t c = 0; c < names.size(); ++c) {
                frame.insert(names[c], Imf::Slice::Make(Imf::FLOAT, base + c * sizeof(float), window,
                                                        xStride, yStride));
            }
            file.setFrameBuffer(frame);
            file.readPixels(window.min.y + int(first), window.min.y + int(last));
        }
        return image;
    } catch (const std::exception& e) {
        Fail(OnFile("read", "EXR", path) + e.what());
    }
#endif
}

Image ReadTiff(const fs::path& path) {
    const std::string context = OnFile("read", "TIFF", path);
#ifndef BASEKIT64_HAVE_TIFF
    Fail(NoTiff("read", path));
#else
    TiffReader reader(path, context);
    TIFF* tif = reader.tif.get();
    uint32_t width = 0, height = 0;
    uint16_t perPixel = 1, bits = 1, format = SAMPLEFORMAT_UINT, planar = PLANARCONFIG_CONTIG,
             photometric = PHOTOMETRIC_MINISBLACK;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &perPixel);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &format);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric);
    const bool known = (format == SAMPLEFORMAT_UINT && (bits == 8 || bits == 16)) ||
                       (format == SAMPLEFORMAT_IEEEFP && (bits == 32 || bits == 64));
    if (!known) {
        Fail(context + "unsupported samples: " + std::to_string(bits) + "-bit " +
             (format == SAMPLEFORMAT_INT ? "signed"
              : format == SAMPLEFORMAT_IEEEFP ? "float"
              : format == SAMPLEFORMAT_UINT ? "unsigned"
                                            : "other") +
             " (8- or 16-bit unsigned, 32- or 64-bit float)");
    }
    if (photometric == PHOTOMETRIC_PALETTE || photometric == PHOTOMETRIC_YCBCR)
        Fail(context + "palette and YCbCr images are not read");
    if (width < 1 || height < 1 || perPixel < 1) Fail(context + "empty image");
    const int channels = perPixel >= 3 ? 3 : 1;
    const uint64_t count = uint64_t(width) * height * channels;
    if (width > uint32_t(INT32_MAX) || height > uint32_t(INT32_MAX) || count > kMaxImageSamples) {
        Fail(context + "image too large (" + std::to_string(width) + "x" + std::to_string(height) +
             ")");
    }

    Image image{int32_t(width), int32_t(height), channels, std::vector<float>(size_t(count))};
    const size_t sampleBytes = bits / 8;
    const bool separate = planar == PLANARCONFIG_SEPARATE && perPixel > 1;
    const int planes = separate ? channels : 1;
    // Samples of one pixel in a buffer row: all of them, or one plane's.
    const size_t stride = separate ? 1 : perPixel;
    const int taken = separate ? 1 : channels;
    auto store = [&](const uint8_t* row, uint32_t x0, uint32_t y, uint32_t n, int plane) {
        float* out = image.samples.data() + (size_t(y) * width + x0) * channels;
        for (uint32_t x = 0; x < n; ++x)
            for (int c = 0; c < taken; ++c)
                out[size_t(x) * channels + plane + c] =
                    TiffSample(row + (x * stride + c) * sampleBytes, format, bits);
    };
    if (TIFFIsTiled(tif)) {
        uint32_t tileWidth = 0, tileHeight = 0;
        TIFFGetField(tif, TIFFTAG_TILEWIDTH, &tileWidth);
        TIFFGetField(tif, TIFFTAG_TILELENGTH, &tileHeight);
        const tmsize_t tileBytes = TIFFTileSize(tif);
        if (tileWidth < 1 || tileHeight < 1 || tileBytes < 1 ||
            uint64_t(tileBytes) < uint64_t(tileWidth) * tileHeight * stride * sampleBytes)
            Fail(context + "invalid tile layout");
        std::vector<uint8_t> tile(static_cast<size_t>(tileBytes));
        for (int plane = 0; plane < planes; ++plane)
            for (uint32_t ty = 0; ty < height; ty += tileHeight)
                for (uint32_t tx = 0; tx < width; tx += tileWidth) {
                    if (TIFFReadTile(tif, tile.data(), tx, ty, 0, uint16_t(plane)) < 0)
                        Fail(context + reader.Error("cannot read a tile"));
                    const uint32_t n = std::min(tileWidth, width - tx);
                    for (uint32_t r = 0; r < tileHeight && ty + r < height; ++r)
                        store(tile.data() + size_t(r) * tileWidth * stride * sampleBytes, tx,
                              ty + r, n, plane);
                }
    } else {
        const tmsize_t lineBytes = TIFFScanlineSize(tif);
        if (lineBytes < 1 || uint64_t(lineBytes) < uint64_t(width) * stride * sampleBytes)
            Fail(context + "invalid strip layout");
        std::vector<uint8_t> line(static_cast<size_t>(lineBytes));
        for (int plane = 0; plane < planes; ++plane)
            for (uint32_t y = 0; y < height; ++y) {
                if (TIFFReadScanline(tif, line.data(), y, uint16_t(plane)) < 0)
                    Fail(context + reader.Error("file is truncated or unreadable"));
                store(line.data(), 0, y, width, plane);
            }
    }
    return image;
#endif
}

std::optional<GeoExtent> ReadGeoExtent(const fs::path& path) {
#ifndef BASEKIT64_HAVE_TIFF
    Fail(NoTiff("read", path));
#else
    TiffReader reader(path, OnFile("read", "TIFF", path));
    TIFF* tif = reader.tif.get();
    uint32_t width = 0, height = 0;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &height);
    if (width < 1 || height < 1) return std::nullopt;

    unsigned short rasterType = RasterPixelIsArea;
    if (GTIF* keys = GTIFNewEx(tif, GeoTiffQuiet, nullptr)) {
        GTIFKeyGet(keys, GTRasterTypeGeoKey, &rasterType, 0, 1);
        GTIFFree(keys);
    }
    // An area raster's tie point is a pixel's corner; our samples are its centre.
    const double half = rasterType == RasterPixelIsPoint ? 0.0 : 0.5;
    uint16_t count = 0, tieCount = 0;
    double *matrix = nullptr, *scale = nullptr, *ties = nullptr;
    double x0, y0, dx, dy;
    if (TIFFGetField(tif, TIFFTAG_GEOTRANSMATRIX, &count, &matrix) && count >= 16) {
        if (matrix[1] != 0.0 || matrix[4] != 0.0) return std::nullopt;  // rotated
        dx = matrix[0];
        dy = matrix[5];
        x0 = matrix[3];
        y0 = matrix[7];
    } else if (TIFFGetField(tif, TIFFTAG_GEOPIXELSCALE, &count, &scale) && count >= 2 &&
               TIFFGetField(tif, TIFFTAG_GEOTIEPOINTS, &tieCount, &ties) && tieCount >= 6) {
        dx = scale[0];
        dy = -scale[1];  // rows go down, y goes up
        x0 = ties[3] - ties[0] * dx;
        y0 = ties[4] - ties[1] * dy;
    } else {
        return std::nullopt;
    }
    GeoExtent extent{x0 + half * dx, y0 + half * dy, x0 + (width - 1 + half) * dx,
                     y0 + (height - 1 + half) * dy};
    if (!std::isfinite(extent.x0) || !std::isfinite(extent.y0) || !std::isfinite(extent.x1) ||
        !std::isfinite(extent.y1))
        return std::nullopt;
    return extent;
#endif
}

void WriteGeoTiff(const fs::path& path, const ImageView& image, const GeoExtent& extent) {
#ifndef BASEKIT64_HAVE_TIFF
    static_cast<void>(image);
    static_cast<void>(extent);
    Fail(NoTiff("write", path));
#else
    CheckImage(path, "TIFF", image);
    // Messages here are prefixed with the file by WriteAtomically.
    WriteAtomically(path, "TIFF", [&](std::FILE* file) {
        TiffStream stream;
        stream.file = file;
        stream.writing = true;
        TiffPtr tif(OpenTiff("w", stream));
        if (!tif) Fail(stream.error.empty() ? "cannot start libtiff" : stream.error);
        TIFF* t = tif.get();
        const size_t rowSamples = size_t(image.width) * image.channels;
        const uint32_t stripRows =
            uint32_t(std::clamp<size_t>((size_t{1} << 18) / (rowSamples * 4), 1, image.height));
        TIFFSetField(t, TIFFTAG_IMAGEWIDTH, uint32_t(image.width));
        TIFFSetField(t, TIFFTAG_IMAGELENGTH, uint32_t(image.height));
        TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, uint16_t(image.channels));
        TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, uint16_t(32));
        TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, uint16_t(SAMPLEFORMAT_IEEEFP));
        TIFFSetField(t, TIFFTAG_PLANARCONFIG, uint16_t(PLANARCONFIG_CONTIG));
        TIFFSetField(t, TIFFTAG_PHOTOMETRIC,
                     uint16_t(image.channels == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK));
        TIFFSetField(t, TIFFTAG_COMPRESSION, uint16_t(COMPRESSION_ADOBE_DEFLATE));
        TIFFSetField(t, TIFFTAG_PREDICTOR, uint16_t(PREDICTOR_FLOATINGPOINT));
        TIFFSetField(t, TIFFTAG_ZIPQUALITY, kTiffLevel);
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, stripRows);

        const double dx = image.width > 1 ? (extent.x1 - extent.x0) / (image.width - 1) : 1.0;
        const double dy = image.height > 1 ? (extent.y1 - extent.y0) / (image.height - 1) : -1.0;
        if (dx > 0.0 && dy < 0.0) {  // north up: the form every reader knows
            const double ties[6] = {0, 0, 0, extent.x0, extent.y0, 0};
            const double scale[3] = {dx, -dy, 0};
            TIFFSetField(t, TIFFTAG_GEOTIEPOINTS, 6, ties);
            TIFFSetField(t, TIFFTAG_GEOPIXELSCALE, 3, scale);
        } else {
            const double matrix[16] = {dx, 0, 0, extent.x0, 0, dy, 0, extent.y0,
                                       0,  0, 0, 0,         0, 0,  0, 1};
            TIFFSetField(t, TIFFTAG_GEOTRANSMATRIX, 16, matrix);
        }
        GTIF* keys = GTIFNew(t);
        if (!keys) Fail("cannot start libgeotiff");
        GTIFKeySet(keys, GTModelTypeGeoKey, TYPE_SHORT, 1, ModelTypeProjected);
        GTIFKeySet(keys, GTRasterTypeGeoKey, TYPE_SHORT, 1, RasterPixelIsPoint);
        GTIFKeySet(keys, ProjectedCSTypeGeoKey, TYPE_SHORT, 1, KvUserDefined);
        GTIFKeySet(keys, GTCitationGeoKey, TYPE_ASCII, 0, "orogen world");
        const bool keysWritten = GTIFWriteKeys(keys) != 0;
        GTIFFree(keys);
        if (!keysWritten) Fail("cannot write the GeoTIFF keys");

        // The predictor works in place: each strip goes through a copy.
        std::vector<float> strip;
        for (uint32_t y = 0, s = 0; y < uint32_t(image.height); y += stripRows, ++s) {
            const uint32_t rows = std::min(stripRows, uint32_t(image.height) - y);
            const float* from = image.samples + size_t(y) * rowSamples;
            strip.assign(from, from + rows * rowSamples);
            if (TIFFWriteEncodedStrip(t, s, strip.data(), tmsize_t(strip.size() * 4)) < 0)
                Fail(stream.error.empty() ? "cannot encode" : stream.error);
        }
        if (!TIFFFlush(t) || !stream.error.empty())
            Fail(stream.error.empty() ? "cannot finish the file" : stream.error);
    });
#endif
}

void WriteEnviHeader(const fs::path& path, const ImageView& image, const GeoExtent& extent,
                     double verticalScale) {
    CheckImage(path, "ENVI header", image);  // the image its r32 holds
    auto number = [](double v) {
        char text[40];
        std::snprintf(text, sizeof text, "%.17g", v);
        return std::string(text);
    };
    const double dx = image.width > 1 ? (extent.x1 - extent.x0) / (image.width - 1) : 1.0;
    const double dy = image.height > 1 ? (extent.y1 - extent.y0) / (image.height - 1) : -1.0;
    // Pixel 1.5, 1.5 is the centre of the first pixel: our first sample. ENVI's
    // pixel size in y counts downwards.
    std::string text = "ENVI\n";
    text += "description = {orogen " +
            std::string(image.channels == 3 ? "bitmap" : "height field") + "; vertical scale " +
            number(verticalScale) + "}\n";
    text += "samples = " + std::to_string(image.width) + "\n";
    text += "lines = " + std::to_string(image.height) + "\n";
    text += "bands = " + std::to_string(image.channels) + "\n";
    text += "header offset = 0\nfile type = ENVI Standard\ndata type = 4\n";
    text += "interleave = bip\nbyte order = 0\n";
    text += "map info = {Arbitrary, 1.5, 1.5, " + number(extent.x0) + ", " + number(extent.y0) +
            ", " + number(dx) + ", " + number(-dy) + "}\n";
    text += image.channels == 3 ? "band names = {red, green, blue}\n" : "band names = {height}\n";
    WriteTextFile(path, text);
}

Image ReadImage(const fs::path& path, int wantChannels) {
    if (wantChannels != 0 && wantChannels != 1 && wantChannels != 3) {
        Fail("cannot read " + Quote(path) + ": invalid channel count " +
             std::to_string(wantChannels) + " requested (0, 1 or 3)");
    }
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    Image image;
    if (extension == ".png") {
        image = ReadPng(path);
    } else if (extension == ".exr") {
        image = ReadExr(path);
    } else if (extension == ".tif" || extension == ".tiff") {
        image = ReadTiff(path);
    } else if (extension == ".r32" || extension == ".r16") {
        Fail("cannot read " + Quote(path) + ": a raw " + extension.substr(1) +
             " file holds no size; use ReadR32 or ReadR16");
    } else {
        Fail("cannot read " + Quote(path) + ": unknown image type '" + extension +
             "' (.png, .exr, .tif or .tiff)");
    }
    if (wantChannels == 0 || wantChannels == image.channels) return image;
    return ConvertChannels(image, wantChannels);
}

Image ConvertChannels(const Image& image, int channels) {
    if (channels != 1 && channels != 3) {
        Fail("ConvertChannels: invalid channel count " + std::to_string(channels) + " (1 or 3)");
    }
    const size_t pixels = size_t(std::max(image.width, 0)) * size_t(std::max(image.height, 0));
    if ((image.channels != 1 && image.channels != 3) ||
        image.samples.size() != pixels * image.channels) {
        Fail("ConvertChannels: the image's samples do not match its size and channels");
    }
    if (image.channels == channels) return image;

    Image out{image.width, image.height, channels, std::vector<float>(pixels * channels)};
    const float* in = image.samples.data();
    for (size_t p = 0; p < pixels; ++p) {
        if (channels == 3) {
            out.samples[3 * p] = out.samples[3 * p + 1] = out.samples[3 * p + 2] = in[p];
        } else {
            out.samples[p] =
                float(0.299 * in[3 * p] + 0.587 * in[3 * p + 1] + 0.114 * in[3 * p + 2]);
        }
    }
    return out;
}

}  // namespace basekit::host
