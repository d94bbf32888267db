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

// One row of PNG samples, big-endian as PNG stores them.
void QuantizeRow(const float* in, size_t count, int bitDepth, uint8_t* out) {
    for (size_t i = 0; i < count; ++i) {
        if (bitDepth == 16) {
            const unsigned v = Quantize(in[i], 65535);
            out[2 * i] = uint8_t(v >> 8);
            out[2 * i + 1] = uint8_t(v & 0xff);
        } else {
            out[i] = uint8_t(Quantize(in[i], 255));
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

void WriteStoredPngTo(std::FILE* file, const ImageView& image, int bitDepth) {
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
        QuantizeRow(image.samples + size_t(y) * rowSamples, rowSamples, bitDepth, row.data() + 1);
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
                   PngBand& band) {
    const size_t rowSamples = size_t(image.width) * image.channels;
    const size_t rowBytes = rowSamples * (bitDepth / 8);
    const size_t bpp = size_t(image.channels) * (bitDepth / 8);
    std::vector<uint8_t> prior(rowBytes, 0), row(rowBytes), line(rowBytes + 1), scratch(rowBytes);
    if (y0 > 0)
        QuantizeRow(image.samples + size_t(y0 - 1) * rowSamples, rowSamples, bitDepth,
                    prior.data());
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
        QuantizeRow(image.samples + size_t(y) * rowSamples, rowSamples, bitDepth, row.data());
        line[0] = uint8_t(
            ChooseFilter(row.data(), prior.data(), rowBytes, bpp, scratch, line.data() + 1));
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
               const ParallelFor& parallel) {
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
            EncodePngBand(image, bitDepth, y0, y1, i + 1 == bandCount, bands[i]);
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

void EncodePng(const fs::path& path, const ImageView& image, int bitDepth, const ParallelFor&) {
    WriteStoredPng(path, image, bitDepth);
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

}  // namespace

bool CanReadPng() {
#ifdef BASEKIT64_HAVE_LIBPNG
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
    EncodePng(path, image, 16, {});
}

void WritePng8(const fs::path& path, const ImageView& image) {
    EncodePng(path, image, 8, {});
}

void WritePng(const fs::path& path, const ImageView& image, int bitDepth,
              const ParallelFor& parallel) {
    if (bitDepth != 8 && bitDepth != 16)
        Fail(OnFile("write", "PNG", path) + "unsupported bit depth " + std::to_string(bitDepth) +
             " (8 or 16)");
    EncodePng(path, image, bitDepth, parallel);
}

void WriteStoredPng(const fs::path& path, const ImageView& image, int bitDepth) {
    if (bitDepth != 8 && bitDepth != 16) {
        Fail(OnFile("write", "PNG", path) + "unsupported bit depth " + std::to_string(bitDepth) +
             " (8 or 16)");
    }
    const char* format = PngFormat(bitDepth);
    CheckImage(path, format, image);
    WriteAtomically(path, format,
                    [&](std::FILE* file) { WriteStoredPngTo(file, image, bitDepth); });
}

void SetExrThreads(int threads) {
#ifdef BASEKIT64_HAVE_OPENEXR
    if (Imf::globalThreadCount() != std::max(threads, 0))
        Imf::setGlobalThreadCount(std::max(threads, 0));
#else
    static_cast<void>(threads);
#endif
}

void WriteExr(const fs::path& path, const ImageView& image) {
#ifndef BASEKIT64_HAVE_OPENEXR
    static_cast<void>(image);
    Fail(NoExr("write", path));
#else
    CheckImage(path, "EXR", image);
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
        const std::vector<const char*> names = ExrChannelNames(image.channels);
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

Image ReadR32(const fs::path& path, int32_t width, int32_t height, int channels) {
    const std::string context = OnFile("read", "r32", path);
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
    if (actual != 4 * count) {
        Fail(context + "size is " + std::to_string(actual) + " bytes, expected " +
             std::to_string(4 * count) + " for " + std::to_string(width) + "x" +
             std::to_string(height) + "x" + std::to_string(channels) + " float32 samples");
    }
    FilePtr file(OpenFile(path, false));
    if (!file) Fail(context + ErrnoText(errno));

    Image image{width, height, channels, std::vector<float>(count)};
    constexpr size_t kChunk = size_t{1} << 16;
    std::vector<unsigned char> bytes;
    for (size_t start = 0; start < count; start += kChunk) {
        const size_t n = std::min<size_t>(kChunk, count - start);
        bytes.resize(4 * n);
        if (std::fread(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()) {
            Fail(context + "file is truncated or unreadable");
        }
        for (size_t i = 0; i < n; ++i) {
            uint32_t bits = 0;
            for (int b = 0; b < 4; ++b) bits |= uint32_t(bytes[4 * i + b]) << (8 * b);
            image.samples[start + i] = std::bit_cast<float>(bits);
        }
    }
    return image;
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
        if (!rgb && !list.findChannel("Y")) Fail("has neither a Y channel nor R, G and B channels");
        const int channels = rgb ? 3 : 1;
        const std::vector<const char*> names = ExrChannelNames(channels);
        for (const char* name : names) {
            const Imf::Channel* channel = list.findChannel(name);
            if (channel->xSampling != 1 || channel->ySampling != 1) {
                Fail(std::string("channel ") + name + " is subsampled");
            }
        }
        if (uint64_t(width) * uint64_t(height) * channels > kMaxImageSamples) {
            Fail("image too large (" + std::to_string(width) + "x" + std::to_string(height) + ")");
        }

        Image image{int32_t(width), int32_t(height), channels,
                    std::vector<float>(size_t(width * height * channels))};
        Imf::FrameBuffer frame;
        const size_t xStride = sizeof(float) * channels;
        const size_t yStride = xStride * size_t(width);
        char* base = reinterpret_cast<char*>(image.samples.data());
        for (size_t c = 0; c < names.size(); ++c) {
            frame.insert(names[c], Imf::Slice::Make(Imf::FLOAT, base + c * sizeof(float), window,
                                                    xStride, yStride));
        }
        file.setFrameBuffer(frame);
        file.readPixels(window.min.y, window.max.y);
        return image;
    } catch (const std::exception& e) {
        Fail(OnFile("read", "EXR", path) + e.what());
    }
#endif
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
    } else if (extension == ".r32") {
        Fail("cannot read " + Quote(path) + ": an r32 file holds no size; use ReadR32");
    } else {
        Fail("cannot read " + Quote(path) + ": unknown image type '" + extension +
             "' (.png or .exr)");
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
