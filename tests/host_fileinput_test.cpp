// File Input: heightmaps and images into packets, clear failures, saved state.
#include <algorithm>
#include <random>
#include <sstream>

#include "host/FileInput.h"
#include "host/ImageIO.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

using FileInputTest = HostTest;

Image Pattern(int channels, uint32_t seed) {
    Image image{5, 4, channels, {}};
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int i = 0; i < 20 * channels; ++i) image.samples.push_back(unit(random));
    return image;
}

// Builds one File Input over a 5 x 4 world; the report and the output.
struct Read {
    DeviceReport report;
    Orogen::PacketRef packet;
};

Read Build(Host& host, const fs::path& file, FileInput::Kind kind, int32_t width = 5,
           int32_t height = 4) {
    Network network(host);
    network.world.width = width;
    network.world.height = height;
    auto& input = static_cast<FileInput&>(network.AddDevice("in", "File Input"));
    if (!file.empty()) input.SetFile(file);
    input.SetKind(kind);
    BuildReport report = network.Build();
    return {report.devices.at(0), network.Output("in", 0)};
}

TEST_F(FileInputTest, ReadsHeightfieldsAndImagesOfEveryFormat) {
    TempDir dir;
    using Kind = FileInput::Kind;
    struct Case {
        const char* file;
        void (*write)(const fs::path&, const ImageView&);
        int fileChannels;
        Kind kind;
    };
    auto exr = [](const fs::path& p, const ImageView& i) { WriteExr(p, i); };
    auto r16 = [](const fs::path& p, const ImageView& i) { WriteR16(p, i); };
    auto tif = [](const fs::path& p, const ImageView& i) { WriteGeoTiff(p, i, {}); };
    const Case cases[] = {
        {"grey.r32", WriteR32, 1, Kind::HeightField},
        {"rgb.r32", WriteR32, 3, Kind::Bitmap},
        {"grey.r16", r16, 1, Kind::HeightField},
        {"grey.tif", tif, 1, Kind::HeightField},
        {"rgb.TIFF", tif, 3, Kind::Bitmap},
        {"rgb.tif", tif, 3, Kind::HeightField},
        {"grey16.png", WritePng16, 1, Kind::HeightField},
        {"grey8.png", WritePng8, 1, Kind::Bitmap},
        {"rgb16.png", WritePng16, 3, Kind::HeightField},
        {"rgb8.png", WritePng8, 3, Kind::Bitmap},
        {"grey.exr", exr, 1, Kind::HeightField},
        {"rgb.exr", exr, 3, Kind::Bitmap},
        {"grey.exr", exr, 1, Kind::Bitmap},
        {"rgb.exr", exr, 3, Kind::HeightField},
    };
    uint32_t seed = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + (c.kind == Kind::Bitmap ? " as bitmap" : " as field"));
        fs::path path = dir / c.file;
        Image written = Pattern(c.fileChannels, ++seed);
        const bool png = std::string(c.file).ends_with(".png");
        const bool exr = std::string(c.file).ends_with(".exr");
        const bool tiff = std::string(c.file).find(".t") != std::string::npos ||
                          std::string(c.file).find(".T") != std::string::npos;
        if (tiff && !CanUseTiff()) continue;
        if ((png && !CanReadPng()) || (exr && !CanUseExr())) {
            // A build without the library: the device fails and says why.
            if (png) c.write(path, written);
            Read read = Build(*host, path, c.kind);
            EXPECT_EQ(read.report.status, BuildStatus::Failed);
            EXPECT_NE(read.report.message.find(png ? "cannot read PNG files" : "no EXR support"),
                      std::string::npos)
                << read.report.message;
            continue;
        }
        c.write(path, written);
        Read read = Build(*host, path, c.kind);
        ASSERT_EQ(read.report.status, BuildStatus::Built) << read.report.message;
        ASSERT_TRUE(read.packet);
        int channels = c.kind == Kind::Bitmap ? 3 : 1;
        EXPECT_EQ(read.packet->GetKind(),
                  c.kind == Kind::Bitmap ? Orogen::kBitmap : Orogen::kHeightField);
        // Raw files hold the world's samples as they are; images come as the
        // reader gives them, in the kind asked for.
        std::vector<float> expected;
        if (std::string(c.file).ends_with(".r32"))
            expected = written.samples;
        else if (std::string(c.file).ends_with(".r16"))
            expected = ReadR16(path, 5, 4).samples;
        else
            expected = ReadImage(path, channels).samples;
        EXPECT_TRUE(SameBits(SamplesOf(read.packet), expected));
    }
}

TEST_F(FileInputTest, HeightsAreClampedIntoRange) {
    TempDir dir;
    Image image{5, 4, 1, std::vector<float>(20, 0.5f)};
    std::copy_n(std::begin({-1.0f, 2.0f, std::nanf(""), 1.0f}), 4, image.samples.begin());
    WriteR32(dir / "wild.r32", image);
    std::vector<float> expected(20, 0.5f);
    std::copy_n(std::begin({0.0f, 1.0f, 1.0f, 1.0f}), 4, expected.begin());  // NaN as the top
    EXPECT_EQ(SamplesOf(Build(*host, dir / "wild.r32", FileInput::Kind::HeightField).packet),
              expected);
}

TEST_F(FileInputTest, MissingOrWrongFilesFailWithAClearMessage) {
    TempDir dir;
    WriteR32(dir / "short.r32", Image{5, 3, 1, std::vector<float>(15, 0.5f)});
    WritePng16(dir / "small.png", Image{3, 2, 1, std::vector<float>(6, 0.5f)});
    WriteBytes(dir / "broken.png", "\x89PNG\r\n\x1a\n not really");
    WriteBytes(dir / "heights.tif", "II*");
    WriteBytes(dir / "heights.bmp", "BM");
    WriteR16(dir / "odd.r16", Image{6, 1, 1, std::vector<float>(6, 0.5f)});
    struct Case {
        fs::path file;
        std::string message;  // the start of it
    };
    const Case cases[] = {
        {dir / "missing.r32", "cannot read r32 file '" + (dir / "missing.r32").string() + "': "},
        {dir / "short.r32", "cannot read r32 file '" + (dir / "short.r32").string() +
                                "': size is 60 bytes, expected 80 for 5x4x1 float32 samples"},
        {dir / "odd.r16", "cannot read r16 file '" + (dir / "odd.r16").string() +
                              "': size is 12 bytes, expected 40 for 5x4x1 uint16 samples"},
        {dir / "broken.png", "cannot read PNG file '" + (dir / "broken.png").string() + "': "},
        {dir / "heights.tif", "cannot read TIFF file '" + (dir / "heights.tif").string() + "': "},
        {dir / "heights.bmp",
         (dir / "heights.bmp").string() +
             ": unsupported file type \".bmp\" (use .r32, .r16, .png, .exr, .tif or .tiff)"},
        {"", "no file is set"},
    };
    uint64_t live = HostPacket::Live();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file.string());
        Read read = Build(*host, c.file, FileInput::Kind::HeightField);
        EXPECT_EQ(read.report.status, BuildStatus::Failed);
        EXPECT_EQ(read.report.message.rfind(c.message, 0), 0u) << read.report.message;
        EXPECT_FALSE(read.packet);
    }
    EXPECT_EQ(HostPacket::Live(), live);
}

// Another resolution is resampled: first and last samples stay, the others
// are bilinear. Halfway points of eighths, so that every value is exact.
TEST_F(FileInputTest, OtherResolutionsAreResampledBilinearly) {
    TempDir dir;
    const Image small{3, 2, 1, {0.0f, 0.5f, 1.0f, 0.25f, 0.75f, 0.125f}};
    const std::vector<float> expected = {0.0f,   0.25f,  0.5f,   0.75f,    1.0f,
                                         0.125f, 0.375f, 0.625f, 0.59375f, 0.5625f,
                                         0.25f,  0.5f,   0.75f,  0.4375f,  0.125f};
    // A square raw file: rows 0 and 2 as above, row 1 its own.
    const std::vector<float> square = {0.0f,    0.5f,  1.0f,  0.125f, 0.625f,
                                       0.5625f, 0.25f, 0.75f, 0.125f};
    std::vector<float> fromSquare = expected;
    std::copy_n(std::begin({0.125f, 0.375f, 0.625f, 0.59375f, 0.5625f}), 5, fromSquare.begin() + 5);
    struct Case {
        const char* file;
        Image image;
        const char* from;
        const std::vector<float>& samples;
    };
    const Case cases[] = {{"small.exr", small, "3 x 2", expected},
                          {"small.tif", small, "3 x 2", expected},
                          {"small.r32", Image{3, 3, 1, square}, "3 x 3", fromSquare}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        const fs::path path = dir / c.file;
        const std::string extension = path.extension().string();
        if (extension == ".exr") {
            if (!CanUseExr()) continue;
            WriteExr(path, c.image);
        } else if (extension == ".tif") {
            if (!CanUseTiff()) continue;
            WriteGeoTiff(path, c.image, {});
        } else {
            WriteR32(path, c.image);
        }
        Read read = Build(*host, path, FileInput::Kind::HeightField, 5, 3);
        ASSERT_EQ(read.report.status, BuildStatus::Built) << read.report.message;
        EXPECT_EQ(read.report.message,
                  std::string("resampled from ") + c.from + " to 5 x 3 (bilinear)");
        EXPECT_EQ(SamplesOf(read.packet), c.samples);
    }
    // The world's own size: read as it is, no note.
    Read same = Build(*host, dir / "small.r32", FileInput::Kind::HeightField, 3, 3);
    EXPECT_EQ(same.report.status, BuildStatus::Built);
    EXPECT_EQ(same.report.message, "");

    // A one-sample world takes the first sample; bitmaps keep their channels.
    const Image rgb{2, 1, 3, {0.0f, 0.5f, 1.0f, 1.0f, 0.5f, 0.0f}};
    const Image one = ResampleBilinear(rgb, 1, 1);
    EXPECT_EQ(one.samples, (std::vector<float>{0.0f, 0.5f, 1.0f}));
    EXPECT_EQ(ResampleBilinear(rgb, 3, 2).samples,
              (std::vector<float>{0.0f, 0.5f, 1.0f, 0.5f, 0.5f, 0.5f, 1.0f, 0.5f, 0.0f, 0.0f, 0.5f,
                                  1.0f, 0.5f, 0.5f, 0.5f, 1.0f, 0.5f, 0.0f}));
}

TEST_F(FileInputTest, SavedStateKeepsFileKindAndBase) {
    const DeviceType& type = *host->FindType("File Input");
    EXPECT_EQ(type.tag, "FINP");
    EXPECT_EQ(type.module, nullptr);
    DeviceHandle original(type);
    auto& input = static_cast<FileInput&>(*original.get());
    input.SetFile("/data/dem 1.r32");
    input.SetKind(FileInput::Kind::Bitmap);
    input.SetName("DEM");
    input.anchor[0] = 0.25f;
    std::ostringstream out(std::ios::binary);
    ASSERT_TRUE(input.Save(out));
    const std::string state = out.str();

    DeviceHandle copy(type);
    auto& loaded = static_cast<FileInput&>(*copy.get());
    std::istringstream in(state, std::ios::binary);
    ASSERT_TRUE(loaded.Load(in));
    EXPECT_EQ(loaded.File(), fs::path("/data/dem 1.r32"));
    EXPECT_EQ(loaded.GetKind(), FileInput::Kind::Bitmap);
    EXPECT_EQ(loaded.outputs[0]->kind, Orogen::kBitmap);
    EXPECT_STREQ(loaded.GetName(), "DEM");
    EXPECT_EQ(loaded.anchor[0], 0.25f);

    // Damaged states are refused.
    std::string badKind = state;
    badKind[5] = 7;
    std::string badTag = state;
    badTag[0] = 'X';
    std::string hugePath = state;
    hugePath[12] = '\x7f';
    const std::pair<const char*, std::string> damaged[] = {
        {"wrong tag", badTag},
        {"kind", badKind},
        {"path length", hugePath},
        {"cut in the path", state.substr(0, 20)},
        {"cut in the base", state.substr(0, state.size() - 30)},
        {"empty", ""},
    };
    for (const auto& [name, bytes] : damaged) {
        SCOPED_TRACE(name);
        DeviceHandle target(type);
        std::istringstream damagedIn(bytes, std::ios::binary);
        EXPECT_FALSE(target->Load(damagedIn));
    }
}

}  // namespace
}  // namespace basekit::host::testing
