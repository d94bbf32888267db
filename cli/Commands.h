// The orogen commands.
#pragma once

#include <filesystem>
#include <string>

#include "cli/Tool.h"

namespace orogen {

// Prints the catalogue of `host`.
int RunDevices(basekit::host::Host& host, bool asJson);

struct ServeSettings {
    std::filesystem::path file;                        // the network file, watched
    std::filesystem::path outputDir = "out";           // the page and its builds
    int port = 8080;                                   // 0: any free port
    std::pair<int32_t, int32_t> resolution{513, 513};  // at most, while editing
    uint32_t threads = 0;
    basekit::host::ParseOptions options;  // --seed and --set, applied on every read
};

// Builds the network into the page, serves it on 127.0.0.1 and builds again
// whenever the network file or a file it reads changes. Runs until stopped.
int RunServe(basekit::host::Host& host, const ServeSettings& settings);

// The file below `root` that a request for `requestPath` gets, or an empty
// path when the request leads outside it or to nothing.
std::filesystem::path ServedFile(const std::filesystem::path& root, const std::string& requestPath);

// The network built into the tool, as examples/demo.json holds it.
std::string DemoNetworkText();

}  // namespace orogen
