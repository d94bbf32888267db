// What the fuzz targets share: one host with the module loaded for the whole
// run, and a file holding the input for the readers that take a path.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "host/Host.h"

namespace basekit::fuzz {

inline host::Host& SharedHost() {
    static std::unique_ptr<host::Host> host = [] {
        auto made = std::make_unique<host::Host>();
        const char* module = std::getenv("BASEKIT64_MODULE");
        made->LoadModule(module ? module : BASEKIT64_MODULE_PATH);
        return made;
    }();
    return *host;
}

// The input as a file of this process, rewritten for every input.
inline std::filesystem::path InputFile(const uint8_t* data, size_t size, const char* extension) {
    static const std::filesystem::path folder = [] {
        std::filesystem::path made = std::filesystem::temp_directory_path() /
                                     ("basekit64-fuzz-" + std::to_string(::getpid()));
        std::filesystem::create_directories(made);
        return made;
    }();
    const std::filesystem::path path = folder / (std::string("input") + extension);
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) std::abort();
    if (size && std::fwrite(data, 1, size, file) != size) std::abort();
    std::fclose(file);
    return path;
}

}  // namespace basekit::fuzz
