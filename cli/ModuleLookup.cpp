#include "cli/ModuleLookup.h"

#include <cstdlib>
#include <system_error>

#if defined(_WIN32)
#include <windows.h>
#endif

namespace orogen {

namespace fs = std::filesystem;

const char* ModuleFileName() {
#if defined(_WIN32)
    return "BaseKit64.dll";
#else
    return "libBaseKit64.so";
#endif
}

fs::path ExecutablePath() {
#if defined(_WIN32)
    wchar_t buffer[32768];
    DWORD n = GetModuleFileNameW(nullptr, buffer, 32768);
    if (n == 0 || n >= 32768) return {};
    return fs::path(std::wstring(buffer, n));
#else
    std::error_code error;
    fs::path self = fs::read_symlink("/proc/self/exe", error);
    return error ? fs::path() : self;
#endif
}

namespace {

bool IsFile(const fs::path& path) {
    std::error_code error;
    return fs::is_regular_file(path, error);
}

}  // namespace

ModuleSearch FindModule(const std::optional<fs::path>& explicitPath, const fs::path& executable) {
    ModuleSearch search;
    // An explicit choice that fails must not silently load another module.
    if (explicitPath) {
        search.tried.push_back(*explicitPath);
        if (IsFile(*explicitPath)) search.found = *explicitPath;
        return search;
    }
    if (const char* env = std::getenv("BASEKIT64_MODULE"); env && *env) {
        search.tried.emplace_back(env);
        if (IsFile(env)) search.found = fs::path(env);
        return search;
    }
    if (!executable.empty()) {
        fs::path dir = executable.parent_path();
        for (const fs::path& candidate :
             {dir / ModuleFileName(), (dir / ".." / "plugin" / ModuleFileName()).lexically_normal(),
              (dir / ".." / "lib" / "basekit64" / ModuleFileName()).lexically_normal()}) {
            search.tried.push_back(candidate);
            if (IsFile(candidate)) {
                search.found = candidate;
                return search;
            }
        }
    }
    return search;
}

std::string DescribeFailedSearch(const ModuleSearch& search) {
    std::string text = std::string("cannot find the device module ") + ModuleFileName();
    if (!search.tried.empty()) {
        text += " (looked for";
        for (size_t i = 0; i < search.tried.size(); ++i)
            text += (i ? ", " : " ") + search.tried[i].string();
        text += ")";
    }
    text += "; give its path with --module PATH or the BASEKIT64_MODULE environment variable";
    return text;
}

}  // namespace orogen
