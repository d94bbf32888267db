// The PNG encoders where libpng and zlib exist: the stored one of builds
// without libpng, and the banded one, the same bytes on any thread count.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "imageio_test_support.h"

#ifdef BASEKIT64_HAVE_LIBPNG
#include <zlib.h>  // comes with libpng
#endif

namespace basekit::host::testing {
namespace {

#ifdef BASEKIT64_HAVE_LIBPNG
struct Case {
    const char* name;
    int32_t width, height;
    int channels, bitDepth;
};

// Shapes that give one short block, exactly one and exactly two full blocks
// of 65535 bytes (rows of 257 bytes), many blocks, and several IDAT chunks.
const Case kCases[] = {
    {"Grey8_1x1", 1, 1, 1, 8},
    {"Rgb8_5x3", 5, 3, 3, 8},
    {"Grey16_3x2", 3, 2, 1, 16},
    {"Rgb16_4x7", 4, 7, 3, 16},
    {"Grey16_OneFullBlock", 128, 255, 1, 16},
    {"Grey16_TwoFullBlocks", 128, 510, 1, 16},
    {"Rgb8_ManyBlocks", 300, 200, 3, 8},
    {"Rgb16_SeveralChunks", 700, 300, 3, 16},
    {"Grey16_ManyBands", 1000, 333, 1, 16},
};

// The levels of `samples`, big-endian, as a PNG row holds them.
std::string Levels(const float* samples, size_t count, int bitDepth) {
    std::string bytes;
    for (size_t i = 0; i < count; ++i) {
        const unsigned v = PngLevel(samples[i], bitDepth == 16 ? 65535 : 255);
        if (bitDepth == 16) bytes += char(v >> 8);
        bytes += char(v & 0xff);
    }
    return bytes;
}

uint32_t BigEndian(const std::string& bytes, size_t at) {
    return (uint32_t(uint8_t(bytes[at])) << 24) | (uint32_t(uint8_t(bytes[at + 1])) << 16) |
           (uint32_t(uint8_t(bytes[at + 2])) << 8) | uint32_t(uint8_t(bytes[at + 3]));
}

// The zlib stream inflated by zlib, its own checks included.
std::string Inflate(const std::string& stream, size_t size) {
    std::string raw(size, '\0');
    uLongf length = uLongf(size);
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(raw.data()), &length,
                         reinterpret_cast<const Bytef*>(stream.data()), uLong(stream.size())),
              Z_OK);
    raw.resize(length);
    return raw;
}

// Walks the chunks, checking each CRC, that the file is IHDR, IDATs, IEND
// and nothing else, and IHDR's body; gives the IDATs' bodies joined.
void ReadChunks(const std::string& file, const Case& c, std::string& stream, size_t& idatChunks) {
    ASSERT_EQ(file.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
    std::vector<std::string> types;
    std::string header;
    size_t at = 8;
    while (at + 12 <= file.size()) {
        const uint32_t length = BigEndian(file, at);
        ASSERT_LE(at + 12 + length, file.size());
        const std::string body = file.substr(at + 4, 4 + length);
        EXPECT_EQ(BigEndian(file, at + 8 + length), Crc32(body)) << "chunk " << body.substr(0, 4);
        types.push_back(body.substr(0, 4));
        if (types.back() == "IHDR") header = body.substr(4);
        if (types.back() == "IDAT") {
            stream += body.substr(4);
            ++idatChunks;
        }
        at += 12 + length;
    }
    EXPECT_EQ(at, file.size());
    ASSERT_GE(types.size(), 3u);
    EXPECT_EQ(types.front(), "IHDR");
    EXPECT_EQ(types.back(), "IEND");
    EXPECT_EQ(types.size(), idatChunks + 2);  // nothing else, IDATs together

    const std::string depthAndType = {char(c.bitDepth), char(c.channels == 1 ? 0 : 2), 0, 0, 0};
    EXPECT_EQ(header,
              BigEndian32(uint32_t(c.width)) + BigEndian32(uint32_t(c.height)) + depthAndType);
}

class StoredAndBandedPng : public ::testing::TestWithParam<Case> {};

TEST_P(StoredAndBandedPng, AreExactAndTheSameOnEveryThreadCount) {
    NEED_PNG_READER();
    const Case& c = GetParam();
    const Image image = MakeImage(c.width, c.height, c.channels, PngSample);
    TempDir dir;
    const fs::path stored = dir / "stored.png", one = dir / "one.png", many = dir / "many.png";
    WriteStoredPng(stored, image, c.bitDepth);
    // libpng reads the exact levels.
    const Image back = ReadPng(stored);
    ASSERT_EQ(back.width, c.width);
    ASSERT_EQ(back.height, c.height);
    ASSERT_EQ(back.channels, c.channels);
    ASSERT_EQ(back.samples.size(), image.samples.size());
    const unsigned max = c.bitDepth == 16 ? 65535 : 255;
    for (size_t i = 0; i < image.samples.size(); ++i)
        ASSERT_EQ(back.samples[i], float(PngLevel(image.samples[i], max)) / float(max))
            << "sample " << i << " = " << image.samples[i];

    std::string stream;
    size_t idatChunks = 0;
    ASSERT_NO_FATAL_FAILURE(ReadChunks(ReadBytes(stored), c, stream, idatChunks));
    // The scanlines: filter byte 0, then the levels, big-endian.
    std::string raw;
    const size_t rowSamples = size_t(c.width) * c.channels;
    for (int32_t y = 0; y < c.height; ++y)
        raw += '\0' + Levels(&image.samples[y * rowSamples], rowSamples, c.bitDepth);

    // zlib header, stored blocks of at most 65535 bytes with the last one
    // marked, then the Adler-32 of the data.
    ASSERT_GE(stream.size(), 2u);
    EXPECT_EQ(uint8_t(stream[0]), 0x78);
    EXPECT_EQ((uint8_t(stream[0]) * 256 + uint8_t(stream[1])) % 31, 0);
    std::string data;
    size_t p = 2, blocks = 0;
    for (bool last = false; !last; ++blocks) {
        ASSERT_LE(p + 5, stream.size());
        const uint8_t kind = uint8_t(stream[p]);
        ASSERT_EQ(kind & 0x06, 0) << "block " << blocks << " is not stored";
        last = (kind & 1) != 0;
        const unsigned length = uint8_t(stream[p + 1]) | (unsigned(uint8_t(stream[p + 2])) << 8);
        const unsigned inverse = uint8_t(stream[p + 3]) | (unsigned(uint8_t(stream[p + 4])) << 8);
        ASSERT_EQ(length ^ 0xffffu, inverse);
        ASSERT_LE(p + 5 + length, stream.size());
        data += stream.substr(p + 5, length);
        p += 5 + length;
        if (!last) {
            EXPECT_EQ(length, 65535u) << "only the last block is short";
        }
    }
    EXPECT_EQ(blocks, (raw.size() + 65534) / 65535);
    EXPECT_TRUE(data == raw) << "the stored bytes are not the scanlines";
    ASSERT_EQ(p + 4, stream.size());
    const uLong adler = adler32(adler32(0, nullptr, 0), reinterpret_cast<const Bytef*>(raw.data()),
                                uInt(raw.size()));
    EXPECT_EQ(BigEndian(stream, p), uint32_t(adler));
    // Several IDAT chunks only for the largest, which holds over 1 MiB.
    EXPECT_EQ(idatChunks > 1, raw.size() > (size_t{1} << 20)) << idatChunks << " IDAT chunks";

    // The banded file: bands run backwards on several threads, and order may
    // not matter.
    WritePng(one, image, c.bitDepth, {});
    const ParallelFor threads = [](size_t count, const std::function<void(size_t)>& body) {
        std::vector<std::thread> pool;
        for (size_t t = 0; t < 3; ++t)
            pool.emplace_back([&, t] {
                for (size_t i = count; i-- > 0;)
                    if (i % 3 == t) body(i);
            });
        for (std::thread& thread : pool) thread.join();
    };
    WritePng(many, image, c.bitDepth, threads);
    const std::string file = ReadBytes(one);
    EXPECT_TRUE(file == ReadBytes(many)) << "the threads changed the file";
    EXPECT_EQ(dir.List(), (std::vector<std::string>{"many.png", "one.png", "stored.png"}));
    stream.clear();
    idatChunks = 0;
    ASSERT_NO_FATAL_FAILURE(ReadChunks(file, c, stream, idatChunks));
    // zlib checks the joined stream's Adler-32, which libpng may let pass.
    EXPECT_EQ(Inflate(stream, raw.size()).size(), raw.size());
    EXPECT_EQ(ReadPng(one).samples, back.samples);  // the exact levels, as the stored file's
}

INSTANTIATE_TEST_SUITE_P(Shapes, StoredAndBandedPng, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) {
                             return std::string(info.param.name);
                         });
#endif

}  // namespace
}  // namespace basekit::host::testing
