// orogen build: network in, files and a manifest out.

#include <algorithm>
#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "cli/Preview.h"
#include "cli/Progress.h"
#include "cli/Tool.h"

#ifdef _WIN32
#include <io.h>
#include <process.h>
#define isatty _isatty
#define fileno _fileno
#else
#include <unistd.h>
#endif

namespace orogen {

namespace fs = std::filesystem;
using basekit::host::BuildReport;
using basekit::host::BuildStatus;
using basekit::host::DeviceReport;
using basekit::host::ExportEntry;
using basekit::host::Image;
using basekit::host::Network;
using basekit::host::Project;
using json = nlohmann::ordered_json;

namespace {

// An interrupt stops the build after its current device, or the writing
// after its current file, so that no temporary file is left behind.
std::atomic<Network*> g_building{nullptr};
std::atomic<bool> g_interrupted{false};

extern "C" void OnInterrupt(int) {
    g_interrupted = true;
    if (Network* network = g_building.load()) network->Cancel();
}

class InterruptGuard {
public:
    explicit InterruptGuard(Network& network) {
        g_interrupted = false;
        g_building = &network;
        previousInt = std::signal(SIGINT, OnInterrupt);
        previousTerm = std::signal(SIGTERM, OnInterrupt);
    }
    ~InterruptGuard() {
        std::signal(SIGINT, previousInt);
        std::signal(SIGTERM, previousTerm);
        g_building = nullptr;
    }

private:
    void (*previousInt)(int);
    void (*previousTerm)(int);
};

bool PlainFileName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of("/\\:") == std::string::npos;
}

// Exports must give distinct plain file names.
void CheckExportNames(const std::vector<ExportEntry>& exports) {
    std::set<std::string> seen;
    for (const ExportEntry& entry : exports) {
        if (!PlainFileName(entry.name))
            throw UsageError("export of \"" + entry.device + "\": \"" + entry.name +
                             "\" is not a plain file name; name it in \"export\"");
        if (!seen.insert(entry.name).second)
            throw UsageError("export name \"" + entry.name + "\" is used twice; name the exports in \"export\"");
        if (entry.name == "manifest" || entry.name == "preview")
            throw UsageError("export name \"" + entry.name + "\" is reserved; name it otherwise in \"export\"");
    }
}

// Makes the folder and proves it takes files, before any work is done.
void PrepareOutputFolder(const fs::path& dir) {
    std::error_code error;
    if (fs::exists(dir, error) && !fs::is_directory(dir, error))
        throw UsageError("output folder " + dir.string() + " is not a folder");
    fs::create_directories(dir, error);
    if (error) throw UsageError("cannot create output folder " + dir.string() + ": " + error.message());
#ifdef _WIN32
    int pid = _getpid();
#else
    int pid = static_cast<int>(getpid());
#endif
    fs::path probe = dir / (".orogen-probe-" + std::to_string(pid));
    std::FILE* file = std::fopen(probe.string().c_str(), "wb");
    if (!file) throw UsageError("output folder " + dir.string() + " is not writable");
    std::fclose(file);
    fs::remove(probe, error);
}

std::string Seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

void PrintSummary(const Network& network, const BuildReport& report) {
    size_t idWidth = 6, typeWidth = 4, statusWidth = 6;
    for (const DeviceReport& d : report.devices) {
        idWidth = std::max(idWidth, d.id.size());
        typeWidth = std::max(typeWidth, network.TypeOf(d.id).typeName.size());
        statusWidth = std::max(statusWidth, std::string(StatusName(d.status)).size());
    }
    std::printf("%-*s  %-*s  %-*s  %9s\n", static_cast<int>(idWidth), "device",
                static_cast<int>(typeWidth), "type", static_cast<int>(statusWidth), "status",
                "seconds");
    for (const DeviceReport& d : report.devices) {
        std::printf("%-*s  %-*s  %-*s  %9s", static_cast<int>(idWidth), d.id.c_str(),
                    static_cast<int>(typeWidth), network.TypeOf(d.id).typeName.c_str(),
                    static_cast<int>(statusWidth), StatusName(d.status), Seconds(d.seconds).c_str());
        if (d.status != BuildStatus::Built && !d.message.empty()) std::printf("  %s", d.message.c_str());
        std::printf("\n");
    }
    std::printf("%zu devices in %s s\n", report.devices.size(), Seconds(report.seconds).c_str());
}

json Range(const Image& image) {
    float low = INFINITY, high = -INFINITY;
    for (float v : image.samples) {
        if (std::isnan(v)) continue;
        low = std::min(low, v);
        high = std::max(high, v);
    }
    if (low > high) return json{nullptr, nullptr};
    return json{low, high};
}

}  // namespace

int BuildAndExport(Project& project, const BuildSettings& settings) {
    Network& network = *project.network;
    if (settings.resolution) {
        network.world.width = settings.resolution->first;
        network.world.height = settings.resolution->second;
    }
    CheckExportNames(project.exports);
    PrepareOutputFolder(settings.outputDir);

    uint32_t threads = settings.threads ? settings.threads : std::max(1u, std::thread::hardware_concurrency());
    ProgressLine progress(stderr, !settings.quiet && isatty(fileno(stderr)));
    basekit::host::BuildOptions options;
    options.workers = threads - 1;
    options.onDeviceStart = [&](const std::string& id, size_t position, size_t count) {
        progress.DeviceStarted(id, position, count);
    };
    options.onProgress = [&](const std::string& id, uint32_t done, uint32_t total) {
        if (total) progress.Fraction(id, static_cast<double>(done) / total);
        return true;
    };
    options.onPercent = [&](const std::string& id, int32_t percent) {
        progress.Fraction(id, percent / 100.0);
    };

    InterruptGuard guard(network);
    BuildReport report = network.Build(options);
    progress.Finish();
    if (g_interrupted) {
        std::fprintf(stderr, "orogen: interrupted; nothing written\n");
        return kExitInterrupted;
    }

    size_t formatCount = 0;
    for (unsigned format : {kPng, kR32, kExr}) formatCount += (settings.formats & format) ? 1 : 0;
    const size_t fileCount = project.exports.size() * formatCount;
    size_t filesWritten = 0;

    json outputs = json::array();
    json missing = json::array();
    std::optional<std::pair<Image, std::string>> firstField;
    for (const ExportEntry& entry : project.exports) {
        const DeviceReport* built = report.Find(entry.device);
        Orogen::PacketRef packet;
        if (built && built->status == BuildStatus::Built) packet = network.Output(entry.device, entry.output);
        if (!packet || (packet->GetKind() != Orogen::kHeightField && packet->GetKind() != Orogen::kBitmap)) {
            std::string why;
            if (!built)
                why = "\"" + entry.device + "\" was not built";
            else if (built->status != BuildStatus::Built)
                why = "\"" + entry.device + "\" " + StatusName(built->status) +
                      (built->message.empty() ? "" : ": " + built->message);
            else
                why = "output " + std::to_string(entry.output) + " of \"" + entry.device +
                      "\" holds no height field or bitmap";
            missing.push_back({{"name", entry.name}, {"device", entry.device}, {"output", entry.output},
                               {"reason", why}});
            continue;
        }
        Image image = network.OutputImage(entry.device, entry.output);
        json files = json::object();
        const std::pair<unsigned, const char*> writers[] = {{kPng, "png"}, {kR32, "r32"}, {kExr, "exr"}};
        for (const auto& [format, extension] : writers) {
            if (!(settings.formats & format)) continue;
            if (g_interrupted) {
                std::fprintf(stderr, "orogen: interrupted; the manifest was not updated\n");
                return kExitInterrupted;
            }
            std::string fileName = entry.name + "." + extension;
            fs::path path = settings.outputDir / fileName;
            progress.DeviceStarted("writing " + fileName, filesWritten++, fileCount);
            if (format == kPng) basekit::host::WritePng16(path, image);
            if (format == kR32) basekit::host::WriteR32(path, image);
            if (format == kExr) basekit::host::WriteExr(path, image);
            files[extension] = fileName;
        }
        json range = Range(image);
        outputs.push_back({{"name", entry.name},
                           {"device", entry.device},
                           {"output", entry.output},
                           {"kind", image.channels == 3 ? "bitmap" : "heightfield"},
                           {"width", image.width},
                           {"height", image.height},
                           {"mask", packet->maskFlag != 0},
                           {"min", range[0]},
                           {"max", range[1]},
                           {"files", files}});
        if (settings.preview && !firstField && image.channels == 1)
            firstField.emplace(std::move(image), entry.name);
    }

    progress.Finish();

    json manifest;
    manifest["outputs"] = outputs;
    if (!missing.empty()) manifest["missing"] = missing;
    if (settings.preview && firstField) {
        Orogen::Grid grid = network.world.ToGrid();
        Image picture = RenderPreview(firstField->first, grid, network.globals.waterLevel,
                                      network.globals.lightDirection);
        basekit::host::WritePng8(settings.outputDir / "preview.png", picture);
        manifest["preview"] = {{"file", "preview.png"}, {"of", firstField->second}};
    }
    json devices = json::array();
    for (const DeviceReport& d : report.devices) {
        json item = {{"id", d.id},
                     {"type", network.TypeOf(d.id).typeName},
                     {"status", StatusName(d.status)},
                     {"seconds", d.seconds}};
        if (!d.message.empty()) item["message"] = d.message;
        devices.push_back(std::move(item));
    }
    manifest["devices"] = devices;
    if (g_interrupted) {
        std::fprintf(stderr, "orogen: interrupted; the manifest was not updated\n");
        return kExitInterrupted;
    }
    basekit::host::WriteTextFile(settings.outputDir / "manifest.json", manifest.dump(2) + "\n");

    if (!settings.quiet) {
        PrintSummary(network, report);
        std::printf("wrote %zu of %zu outputs to %s\n", outputs.size(), project.exports.size(),
                    settings.outputDir.string().c_str());
    }
    for (const json& item : missing)
        std::fprintf(stderr, "orogen: export \"%s\" is missing: %s\n",
                     item["name"].get<std::string>().c_str(), item["reason"].get<std::string>().c_str());
    return missing.empty() ? kExitOk : kExitDeviceFailed;
}

}  // namespace orogen
