// A fresh folder for one test, removed with everything in it afterwards, and
// whole-file reads and writes.
#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

namespace basekit::testing {

inline std::string ReadBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("test: cannot open " + path.string());
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteBytes(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), std::streamsize(bytes.size()));
    if (!out) throw std::runtime_error("test: cannot write " + path.string());
}

// The names in `dir`, sorted; empty when it does not exist.
inline std::vector<std::string> ListFolder(const std::filesystem::path& dir) {
    std::vector<std::string> names;
    std::error_code error;
    if (!std::filesystem::is_directory(dir, error)) return names;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class TempDir {
public:
    TempDir() {
        std::random_device random;
        const std::filesystem::path base = std::filesystem::temp_directory_path();
        for (;;) {  // another process may pick the same name: try again
            path_ = base / ("basekit-test-" + std::to_string(random()));
            if (std::filesystem::create_directory(path_)) break;
        }
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    std::vector<std::string> List() const { return ListFolder(path_); }

private:
    std::filesystem::path path_;
};

}  // namespace basekit::testing
