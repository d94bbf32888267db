// What the orogen commands share: exit codes, the host with its module,
// options of a build, and the steps of a build from network to files.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/Host.h"
#include "host/NetworkFile.h"

namespace orogen {

enum ExitCode : int {
    kExitOk = 0,
    kExitError = 1,         // the module, the disk, anything else
    kExitUsage = 2,         // bad command line or network file; nothing written
    kExitDeviceFailed = 3,  // a device failed or an export is missing (not with --keep-going)
    kExitInterrupted = 130,
};

// A bad command line or network file: one line, exit code 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Loads the module found by FindModule into `host` and returns its path.
// Throws std::runtime_error with one line saying where it looked, or why the
// module was refused.
std::filesystem::path LoadModule(basekit::host::Host& host,
                                 const std::optional<std::filesystem::path>& module);

enum Format : unsigned { kPng = 1, kR32 = 2, kExr = 4, kR16 = 8, kTif = 16 };

struct BuildSettings {
    std::filesystem::path outputDir = "out";
    unsigned formats = kPng | kR32 | kExr;
    std::optional<std::pair<int32_t, int32_t>> resolution;
    uint32_t threads = 0;  // total, the calling thread included; 0: one per core
    bool quiet = false;
    bool preview = false;  // also DIR/preview.png of the first height field export
    std::string previewOf;   // the export (or device) to preview; empty: the first
    bool keepGoing = false;  // failed devices and missing exports do not change the exit code
    // Removes the files the previous manifest in the folder lists that this
    // build does not write (an export that is missing keeps its old files).
    bool clean = false;
    // Bytes of stored outputs kept in memory; the rest is paged to a swap
    // folder in the output folder. 0: no limit.
    uint64_t memoryBudget = 0;
    // 16-bit PNG and r16: each height field's own range onto 0..65535
    // instead of 0..1.
    bool pngRangeAuto = false;
    std::string exrChannel = "Y";  // a height field's EXR channel
    bool html = false;      // also the page: DIR/index.html and the exports in DIR/data/
    bool pageFiles = true;  // with html: index.html, its scripts and three.js too
};

// "ID.PARAM=VALUE" -> an override; VALUE is read as JSON where it is a
// number, true/false or a quoted string, else as the text itself (a choice's
// label, "#RRGGBB"). Throws UsageError.
basekit::host::ParseOptions::Override ParseSetting(const std::string& text);

// "png,r32" -> formats; throws UsageError, also for a format this build
// cannot write.
unsigned ParseFormats(const std::string& text);
// Every format this build writes, as --format takes them.
std::string DefaultFormats();
// "512M", "8G", "1048576" -> bytes (K, M, G, T are powers of 1024); throws
// UsageError.
uint64_t ParseMemory(const std::string& text);
// "1024x768" -> (1024, 768); throws UsageError.
std::pair<int32_t, int32_t> ParseResolution(const std::string& text);

// Reads a network file; errors become UsageError naming the file and place.
basekit::host::Project ReadProject(basekit::host::Host& host, const std::filesystem::path& file,
                                   const basekit::host::ParseOptions& options = {});
basekit::host::Project ReadProjectText(basekit::host::Host& host, const std::string& text,
                                       const std::string& label,
                                       const basekit::host::ParseOptions& options = {});

// Builds the project, writes its exports, the manifest and (when asked) the
// preview into settings.outputDir. Returns the exit code.
int BuildAndExport(basekit::host::Project& project, const BuildSettings& settings);

}  // namespace orogen
