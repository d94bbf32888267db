// Where orogen finds the device module.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace orogen {

// File name of the module on this platform.
const char* ModuleFileName();

// The running executable's path, or empty when the system cannot say.
std::filesystem::path ExecutablePath();

struct ModuleSearch {
    std::optional<std::filesystem::path> found;
    std::vector<std::filesystem::path> tried;  // in order, for the error message
};

// In order: `explicitPath` when given (no fallback: a wrong --module is an
// error), the environment variable BASEKIT64_MODULE (likewise), then the
// module next to the executable, then ../plugin/ beside it (the build tree),
// then ../lib/basekit64/ (an installed tree).
ModuleSearch FindModule(const std::optional<std::filesystem::path>& explicitPath,
                        const std::filesystem::path& executable);

// One line explaining where the module was looked for.
std::string DescribeFailedSearch(const ModuleSearch& search);

}  // namespace orogen
