// The Windows module's resources: the toolbar strip the build drew, the
// version information and the manifest, read back from the DLL.
#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "plugin/Catalogue.h"
#include "resources/resource.h"
#endif

namespace {

#ifndef _WIN32
TEST(ModuleResources, WindowsOnly) {
    GTEST_SKIP() << "resources belong to the Windows build of the module";
}
#else

std::string Utf16(const std::string& text) {
    std::string bytes;
    for (char c : text) bytes += {c, '\0'};
    return bytes;
}

class ModuleResources : public ::testing::Test {
  protected:
    void SetUp() override {
        module = LoadLibraryExW(std::filesystem::path(BASEKIT64_MODULE_PATH).make_preferred().c_str(),
                                nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_LIBRARY_AS_IMAGE_RESOURCE);
        ASSERT_NE(module, nullptr) << "error " << GetLastError();
    }
    void TearDown() override {
        if (module) FreeLibrary(module);
    }

    // The bytes of one resource; empty when it is missing.
    std::string Resource(LPCWSTR name, LPCWSTR type) const {
        HRSRC found = FindResourceW(module, name, type);
        if (!found) return {};
        const char* bytes = static_cast<const char*>(LockResource(LoadResource(module, found)));
        return bytes ? std::string(bytes, SizeofResource(module, found)) : std::string();
    }

    HMODULE module = nullptr;
};

TEST_F(ModuleResources, ToolbarIsTheStripTheBuildDrew) {
    constexpr int kIcon = 16;
    const int count = basekit::kCatalogueSize;
    const std::string dib = Resource(MAKEINTRESOURCEW(IDB_TOOLBAR_GFX), MAKEINTRESOURCEW(2));
    ASSERT_EQ(dib.size(), sizeof(BITMAPINFOHEADER) + size_t(kIcon) * kIcon * count * 3);
    BITMAPINFOHEADER header;
    std::memcpy(&header, dib.data(), sizeof header);
    EXPECT_EQ(header.biWidth, kIcon * count);
    EXPECT_EQ(header.biHeight, kIcon);
    EXPECT_EQ(header.biBitCount, 24);
    EXPECT_EQ(header.biCompression, DWORD(BI_RGB));

    // A bitmap resource is the file without its 14-byte file header.
    std::ifstream in(BASEKIT64_TOOLBAR_BMP, std::ios::binary);
    const std::string file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    ASSERT_GT(file.size(), 14u);
    EXPECT_EQ(file.substr(0, 2), "BM");
    EXPECT_TRUE(file.substr(14) == dib);

    // One picture per device: none of a single colour, no two alike.
    const char* pixels = dib.data() + sizeof header;
    std::set<std::string> icons;
    for (int n = 0; n < count; ++n) {
        std::string icon;
        std::set<std::string> colours;
        for (int y = 0; y < kIcon; ++y)
            for (int x = 0; x < kIcon; ++x) {
                const std::string pixel(pixels + (size_t(y) * kIcon * count + n * kIcon + x) * 3, 3);
                icon += pixel;
                colours.insert(pixel);
            }
        EXPECT_GE(colours.size(), 3u) << "icon " << n;
        EXPECT_TRUE(icons.insert(icon).second) << "icon " << n << " repeats another";
    }
}

TEST_F(ModuleResources, VersionInformationNamesTheProduct) {
    const std::string info = Resource(MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(16));
    ASSERT_FALSE(info.empty());
    const uint32_t signature = 0xFEEF04BD;
    const size_t at = info.find(std::string(reinterpret_cast<const char*>(&signature), 4));
    ASSERT_NE(at, std::string::npos);
    ASSERT_LE(at + sizeof(VS_FIXEDFILEINFO), info.size());
    VS_FIXEDFILEINFO fixed;
    std::memcpy(&fixed, info.data() + at, sizeof fixed);
    unsigned major = 0, minor = 0, patch = 0;
    ASSERT_EQ(std::sscanf(BASEKIT64_VERSION, "%u.%u.%u", &major, &minor, &patch), 3);
    EXPECT_EQ(fixed.dwFileVersionMS, (major << 16) | minor);
    EXPECT_EQ(fixed.dwFileVersionLS, patch << 16);
    EXPECT_EQ(fixed.dwProductVersionMS, fixed.dwFileVersionMS);
    EXPECT_EQ(fixed.dwFileType, DWORD(VFT_DLL));
    for (const std::string& text : {std::string("Terrain devices for Orogen"), std::string("BaseKit64"),
                                    std::string("BaseKit64.dll"), std::string(BASEKIT64_VERSION)})
        EXPECT_NE(info.find(Utf16(text)), std::string::npos) << text;
}

TEST_F(ModuleResources, ManifestNamesTheModule) {
    const std::string manifest = Resource(MAKEINTRESOURCEW(2), MAKEINTRESOURCEW(24));
    EXPECT_NE(manifest.find("name=\"BaseKit64\""), std::string::npos) << manifest;
    EXPECT_NE(manifest.find("version=\"" + std::string(BASEKIT64_VERSION) + ".0\""), std::string::npos)
        << manifest;
}

#endif

}  // namespace
