// A fresh folder for one test, removed with everything in it afterwards.
#pragma once

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <random>
#include <string>
#include <system_error>
#include <vector>

namespace basekit::testing {

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

    size_t Count() const {
        return static_cast<size_t>(
            std::distance(std::filesystem::directory_iterator(path_), {}));
    }

    // The names in the folder, sorted.
    std::vector<std::string> List() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    std::filesystem::path path_;
};

}  // namespace basekit::testing
