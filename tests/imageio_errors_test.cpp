// Failures: writes that fail leave nothing behind and keep the previous file;
// missing, truncated, corrupt and wrong-size files give runtime_error.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <string>
#include <vector>

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "imageio_test_support.h"

namespace basekit::host::testing {
namespace {

using Writer = void (*)(const fs::path&, const ImageView&);

struct WriterCase {
    const char* name;
    Writer write;
    const char* extension;
    bool (*available)() = [] { return true; };
};

const WriterCase kWriters[] = {
    {"R32", WriteR32, ".r32"},
    {"R16", [](const fs::path& p, const ImageView& i) { WriteR16(p, i); }, ".r16"},
    {"Png16", WritePng16, ".png"},
    {"Png8", WritePng8, ".png"},
    {"StoredPng16", [](const fs::path& p, const ImageView& i) { WriteStoredPng(p, i, 16); },
     ".png"},
    {"StoredPng8", [](const fs::path& p, const ImageView& i) { WriteStoredPng(p, i, 8); }, ".png"},
    {"Exr", [](const fs::path& p, const ImageView& i) { WriteExr(p, i); }, ".exr", CanUseExr},
    {"Tif", [](const fs::path& p, const ImageView& i) { WriteGeoTiff(p, i, {}); }, ".tif",
     CanUseTiff},
    {"EnviHeader", [](const fs::path& p, const ImageView& i) { WriteEnviHeader(p, i, {}, 1.0); },
     ".hdr"}};

float Smooth(size_t i) {
    return 0.5f + 0.4f * std::sin(float(i));
}

class WriteFailure : public ::testing::TestWithParam<WriterCase> {};

// A write that fails names the file and leaves the folder as it was: a
// missing folder gets nothing, a target that is a folder not empty (nothing
// can be renamed over it) keeps its contents, a bad image keeps the previous
// file.
TEST_P(WriteFailure, LeavesTheFolderAsItWas) {
    const WriterCase& w = GetParam();
    TempDir dir;
    const auto fails = [&](const fs::path& path, const Image& image) {
        const std::string message = ErrorOf([&] { w.write(path, image); });
        EXPECT_TRUE(Contains(message, path.string())) << message;
    };
    fails(dir / "missing" / (std::string("out") + w.extension), MakeImage(2, 2, 1, Smooth));
    EXPECT_TRUE(dir.List().empty());
    const fs::path target = dir / (std::string("target") + w.extension);
    fs::create_directory(target);
    WriteBytes(target / "keep", "x");
    fails(target, MakeImage(2, 2, 3, Smooth));
    EXPECT_EQ(ReadBytes(target / "keep"), "x");
    fs::remove_all(target);
    EXPECT_TRUE(dir.List().empty()) << "a temporary was left behind";

    if (!w.available()) GTEST_SKIP() << "this build cannot write " << w.name;
    const fs::path path = dir / (std::string("good") + w.extension);
    w.write(path, MakeImage(4, 3, 3, Smooth));
    const std::string good = ReadBytes(path);
    Image tooFew = MakeImage(4, 3, 3, Smooth), tooMany = MakeImage(4, 3, 1, Smooth);
    tooFew.samples.pop_back();
    tooMany.samples.push_back(0.0f);
    for (const Image& image :
         {tooFew, tooMany, Image{4, 3, 2, std::vector<float>(24)}, Image{0, 3, 1, {}},
          Image{-1, -1, 1, {1.0f}}, Image{65536, 65536, 1, {}}}) {  // the last too large
        fails(path, image);
        EXPECT_EQ(ReadBytes(path), good) << "previous file changed";
        EXPECT_EQ(dir.List(), std::vector<std::string>{path.filename().string()});
    }
}

#ifndef _WIN32
// In a folder others can write, links planted at the target and at every
// temporary name the writers once used (<name>.tmp-<pid>-<n>) never make a
// writer change the files they point at; the link at the target is replaced.
TEST_P(WriteFailure, PlantedLinksAreNeverFollowed) {
    const WriterCase& w = GetParam();
    if (!w.available()) GTEST_SKIP() << w.name << " is not in this build";
    TempDir dir;
    fs::create_directory(dir / "theirs");
    const fs::path victim = dir / "theirs" / "victim";
    WriteBytes(victim, "keep me");
    const std::string name = std::string("out") + w.extension;
    const fs::path path = dir / name;
    fs::create_symlink(victim, path);
    for (int n = 0; n < 256; ++n)
        fs::create_symlink(
            victim, dir / (name + ".tmp-" + std::to_string(getpid()) + "-" + std::to_string(n)));
    w.write(path, MakeImage(3, 2, 1, Smooth));
    EXPECT_EQ(ReadBytes(victim), "keep me");
    EXPECT_FALSE(fs::is_symlink(path));
    EXPECT_GT(fs::file_size(path), 0u);
    EXPECT_EQ(dir.List().size(), 256u + 2u) << "a temporary was left behind";
}
#endif

INSTANTIATE_TEST_SUITE_P(AllWriters, WriteFailure, ::testing::ValuesIn(kWriters),
                         [](const ::testing::TestParamInfo<WriterCase>& info) {
                             return std::string(info.param.name);
                         });

TEST(WriteFailure, StoredPngTakesOnlyDepths8And16) {
    TempDir dir;
    for (const int depth : {0, 1, 4, 12, 32}) {
        const std::string message =
            ErrorOf([&] { WriteStoredPng(dir / "p.png", MakeImage(2, 2, 1, Smooth), depth); });
        EXPECT_TRUE(Contains(message, "bit depth " + std::to_string(depth))) << message;
        EXPECT_TRUE(dir.List().empty());
    }
}

// A build without libpng, OpenEXR or libtiff says so for the file at hand
// and writes nothing.
TEST(MissingLibrary, ReadersAndWritersSaySo) {
    if (CanUseExr() && CanReadPng() && CanUseTiff())
        GTEST_SKIP() << "this build has libpng, OpenEXR and libtiff";
    TempDir dir;
    for (const WriterCase& w : kWriters) {
        if (w.available()) continue;  // EXR and TIFF
        const fs::path path = dir / (std::string("h") + w.extension);
        const std::string kind = w.extension == std::string(".exr") ? "EXR" : "TIFF";
        const std::string why =
            " file '" + path.string() + "': this build of orogen has no " + kind + " support";
        EXPECT_EQ(ErrorOf([&] { w.write(path, MakeImage(2, 2, 1, Smooth)); }),
                  "cannot write " + kind + why);
        EXPECT_TRUE(dir.List().empty());
        EXPECT_EQ(ErrorOf([&] { ReadImage(path); }), "cannot read " + kind + why);
    }
    if (!CanReadPng()) {
        const fs::path path = dir / "p.png";
        WritePng16(path, MakeImage(2, 2, 1, Smooth));
        const std::string expected = "cannot read PNG file '" + path.string() +
                                     "': this build of orogen cannot read PNG files (it only "
                                     "writes them)";
        EXPECT_EQ(ErrorOf([&] { ReadPng(path); }), expected);
        EXPECT_EQ(ErrorOf([&] { ReadImage(path, 1); }), expected);
    }
}

// A missing file, a folder, and on POSIX a FIFO with no writer (which would
// block the open for ever) are refused at once, naming the path.
TEST(ReadFailure, MissingOrNotRegularFileNamesThePath) {
    TempDir dir;
    for (const std::string kind : {"none", "folder", "fifo"})
        for (const char* extension : {".r32", ".png", ".exr", ".tif"}) {
            const fs::path path = dir / (kind + extension);
            if (kind == "folder") fs::create_directory(path);
#ifdef _WIN32
            if (kind == "fifo") continue;
#else
            if (kind == "fifo") {
                ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
            }
#endif
            // The TIFF reader and ReadImage give reasons of their own, and
            // without EXR support the reader says so before looking.
            const std::pair<std::function<void()>, bool> reads[] = {
                {[&] { ReadR32(path, 2, 2, 1); }, true}, {[&] { ReadR16(path, 2, 2, 1); }, true},
                {[&] { ReadPng(path); }, true},          {[&] { ReadExr(path); }, CanUseExr()},
                {[&] { ReadTiff(path); }, false},        {[&] { ReadImage(path, 1); }, false}};
            for (const auto& [read, saysWhy] : reads) {
                const std::string message = ErrorOf(read);
                EXPECT_TRUE(Contains(message, path.string())) << message;
                if (kind != "none" && saysWhy) {
                    EXPECT_TRUE(Contains(message, "not a regular file")) << message;
                }
            }
        }
}

TEST(ReadFailure, RawWrongSizeNamesExpectedAndActual) {
    using Reader = Image (*)(const fs::path&, int32_t, int32_t, int);
    const std::tuple<const char*, Writer, Reader, int> raws[] = {
        {"h.r32", WriteR32, ReadR32, 4},
        {"h.r16", [](const fs::path& p, const ImageView& i) { WriteR16(p, i); }, ReadR16, 2}};
    TempDir dir;
    for (const auto& [name, write, read, bytesPer] : raws) {
        const fs::path path = dir / name;
        const int total = 6 * bytesPer;
        write(path, MakeImage(3, 2, 1, Smooth));
        EXPECT_EQ(read(path, 2, 1, 3).samples.size(), 6u);  // same size, other shape

        for (const auto& [w, h, c] : {std::tuple{3, 3, 1}, {2, 2, 1}, {3, 2, 3}, {1, 1, 1}}) {
            const std::string message = ErrorOf([&, w = w, h = h, c = c] { read(path, w, h, c); });
            EXPECT_TRUE(Contains(message, path.string())) << message;
            EXPECT_TRUE(Contains(message, std::to_string(total) + " bytes")) << message;
            EXPECT_TRUE(Contains(message, std::to_string(w * h * c * bytesPer))) << message;
        }
        const std::string bytes = ReadBytes(path);
        for (const std::string& changed :
             {bytes.substr(0, bytes.size() - 1), bytes + "x", std::string()}) {
            WriteBytes(path, changed);
            const std::string message = ErrorOf([&] { read(path, 3, 2, 1); });
            EXPECT_TRUE(Contains(message, std::to_string(changed.size()) + " bytes")) << message;
        }
        for (const auto& [w, h, c] :
             {std::tuple{0, 1, 1}, {1, -1, 1}, {1, 1, 2}, {65536, 65536, 1}})  // the last
            ErrorOf([&, w = w, h = h, c = c] { read(path, w, h, c); });        // before allocating
    }
}

// Every prefix of a good file, and the file with any one byte changed, must
// give runtime_error (or, where the change is harmless, a sane image), never
// a crash.
void CheckDamaged(const fs::path& path, const std::string& good, const std::function<Image()>& read,
                  bool everyFlipFails) {
    for (size_t n = 0; n < good.size(); ++n) {
        WriteBytes(path, good.substr(0, n));
        const std::string message = ErrorOf([&] { read(); });
        ASSERT_TRUE(Contains(message, path.string())) << "prefix " << n << ": " << message;
    }
    for (size_t i = 0; i < good.size(); ++i) {
        std::string damaged = good;
        damaged[i] = char(damaged[i] ^ 0x5a);
        WriteBytes(path, damaged);
        try {
            const Image image = read();
            ASSERT_FALSE(everyFlipFails) << "byte " << i << " changed but the file was read";
            ASSERT_EQ(image.samples.size(),
                      size_t(image.width) * image.height * size_t(image.channels));
        } catch (const std::runtime_error&) {
        }
    }
}

// Files of every writer of the format, damaged, and a file of another kind.
TEST(ReadFailure, TruncatedCorruptOrForeign) {
    const struct {
        const char* extension;
        bool readable;
        std::function<Image(const fs::path&)> read;
        bool everyFlipFails;
        std::string foreign;
    } cases[] = {
        // Every byte of a PNG is covered by a CRC or checked otherwise.
        {".png", CanReadPng(), ReadPng, true, "not a PNG at all, just some text"},
        {".exr", CanUseExr(), ReadExr, false, std::string("v/1\x01", 4) + std::string(100, '\xff')},
        // The directory comes last, so every prefix lacks it; a changed byte
        // may land in the samples and be read as another value.
        {".tif", CanUseTiff(),
         [](const fs::path& path) {
             ReadGeoExtent(path);
             return ReadTiff(path);
         },
         false, std::string("II*\0not really a TIFF", 21)},
    };
    TempDir dir;
    std::string unreadable;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.extension);
        if (!c.readable) {
            unreadable += c.extension;
            continue;
        }
        const fs::path path = dir / (std::string("damaged") + c.extension);
        for (const WriterCase& w : kWriters) {
            if (w.extension != std::string(c.extension)) continue;
            for (const int channels : {1, 3}) {
                w.write(path, MakeImage(6, 5, channels, Smooth));
                CheckDamaged(
                    path, ReadBytes(path), [&] { return c.read(path); }, c.everyFlipFails);
            }
        }
        WriteBytes(path, c.foreign);
        EXPECT_TRUE(Contains(ErrorOf([&] { c.read(path); }), path.string()));
    }
    if (!unreadable.empty()) GTEST_SKIP() << "this build cannot read " << unreadable;
}

// A PNG header claiming a huge image is refused before the pixels are
// allocated.
TEST(ReadFailure, PngHugeDimensionsRefused) {
    NEED_PNG_READER();
    // 100000 x 100000 16-bit RGB: 3e10 samples.
    const std::string header("\x00\x01\x86\xa0\x00\x01\x86\xa0\x10\x02\x00\x00\x00", 13);
    const std::string png = "\x89PNG\r\n\x1a\n" + PngChunk("IHDR", header) + PngChunk("IDAT", "") +
                            PngChunk("IEND", "");
    TempDir dir;
    const fs::path path = dir / "huge.png";
    WriteBytes(path, png);
    const std::string message = ErrorOf([&] { ReadPng(path); });
    EXPECT_TRUE(Contains(message, "too large")) << message;
}

TEST(ReadFailure, ReadImageRefusesUnknownTypesAndR32) {
    TempDir dir;
    const fs::path r32 = dir / "h.r32", tif = dir / "h.tif";
    WriteR32(r32, MakeImage(1, 1, 1, Smooth));
    WriteBytes(tif, "x");
    EXPECT_TRUE(Contains(ErrorOf([&] { ReadImage(r32); }), "ReadR32"));
    EXPECT_TRUE(Contains(ErrorOf([&] { ReadImage(tif); }), tif.string()));
    EXPECT_TRUE(Contains(ErrorOf([&] { ReadImage(dir / "noextension"); }), "unknown"));
    WritePng16(dir / "p.png", MakeImage(2, 2, 1, Smooth));
    ErrorOf([&] { ReadImage(dir / "p.png", 2); });
    if (!CanUseExr()) return;
    // Content that does not match the extension.
    WriteExr(dir / "e.exr", MakeImage(2, 2, 1, Smooth));
    fs::copy_file(dir / "e.exr", dir / "e.png");
    fs::copy_file(dir / "p.png", dir / "p.exr");
    ErrorOf([&] { ReadImage(dir / "e.png"); });
    ErrorOf([&] { ReadImage(dir / "p.exr"); });
}

}  // namespace
}  // namespace basekit::host::testing
