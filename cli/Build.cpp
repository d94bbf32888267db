// orogen build: network in, files and a manifest out.

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>
#include <system_error>
#include <thread>
#include <unordered_map>

#include "cli/Html.h"
#include "cli/Preview.h"
#include "cli/Progress.h"
#include "cli/Tool.h"
#include "host/HostPacket.h"

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <io.h>
#include <process.h>
#include <windows.h>
#define isatty _isatty
#define fileno _fileno
#else
#include <signal.h>
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

// Exports must give distinct plain file names, and fields a file can hold:
// refused before anything is built.
void CheckExports(const Network& network, const std::vector<ExportEntry>& exports) {
    std::set<std::string> seen;
    for (const ExportEntry& entry : exports) {
        const Orogen::Device& device = network.Get(entry.device);
        const uint32_t kind = entry.output < device.outputs.size() ? device.outputs[entry.output]->kind : 0;
        const bool bitmap = (kind & Orogen::kBitmap) && !(kind & Orogen::kHeightField);
        const uint64_t samples = uint64_t(network.world.width) * uint64_t(network.world.height) * (bitmap ? 3 : 1);
        if (samples > basekit::host::kMaxImageSamples)
            throw UsageError("export \"" + entry.name + "\": a " + (bitmap ? "bitmap" : "height field") + " of " +
                             std::to_string(network.world.width) + "x" + std::to_string(network.world.height) +
                             " is " + std::to_string(samples) + " samples, more than the 2^30 a file holds");
        if (!PlainFileName(entry.name))
            throw UsageError("export of \"" + entry.device + "\": \"" + entry.name +
                             "\" is not a plain file name; name it in \"export\"");
        if (!seen.insert(entry.name).second)
            throw UsageError("export name \"" + entry.name + "\" is used twice; name the exports in \"export\"");
        if (entry.name == "manifest" || entry.name == "preview")
            throw UsageError("export name \"" + entry.name + "\" is reserved; name it otherwise in \"export\"");
    }
}

// Makes the folder and proves it takes files, before any work is done; a
// folder that cannot take them is an error of the disk (exit code 1).
void PrepareOutputFolder(const fs::path& dir) {
    std::error_code error;
    if (fs::exists(dir, error) && !fs::is_directory(dir, error))
        throw std::runtime_error("output folder " + dir.string() + " is not a folder");
    fs::create_directories(dir, error);
    if (error)
        throw std::runtime_error("cannot create output folder " + dir.string() + ": " + error.message());
    if (std::string why = basekit::host::CannotCreateFilesIn(dir); !why.empty())
        throw std::runtime_error("output folder " + dir.string() + " is not writable: " + why);
}

std::string Seconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

std::string Megabytes(uint64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", static_cast<double>(bytes) / (1024.0 * 1024.0));
    return text;
}

void PrintSummary(const Network& network, const BuildReport& report) {
    size_t idWidth = 6, typeWidth = 4, statusWidth = 6;
    for (const DeviceReport& d : report.devices) {
        idWidth = std::max(idWidth, d.id.size());
        typeWidth = std::max(typeWidth, network.TypeOf(d.id).typeName.size());
        statusWidth = std::max(statusWidth, std::string(StatusName(d.status)).size());
    }
    std::printf("%-*s  %-*s  %-*s  %9s  %9s\n", static_cast<int>(idWidth), "device",
                static_cast<int>(typeWidth), "type", static_cast<int>(statusWidth), "status",
                "seconds", "peak MiB");
    for (const DeviceReport& d : report.devices) {
        std::printf("%-*s  %-*s  %-*s  %9s  %9s", static_cast<int>(idWidth), d.id.c_str(),
                    static_cast<int>(typeWidth), network.TypeOf(d.id).typeName.c_str(),
                    static_cast<int>(statusWidth), StatusName(d.status), Seconds(d.seconds).c_str(),
                    Megabytes(d.peakBytes).c_str());
        if (!d.message.empty()) std::printf("  %s", d.message.c_str());  // also a built one's note
        std::printf("\n");
    }
    std::printf("%zu devices in %s s\n", report.devices.size(), Seconds(report.seconds).c_str());
}

// What the exports cover, for the manifest.
json WorldJson(const basekit::host::World& world, const std::string& extentFrom) {
    json item = {{"extent", {world.x0, world.y0, world.x1, world.y1}},
                 {"resolution", {world.width, world.height}},
                 {"verticalScale", world.verticalScale}};
    if (!extentFrom.empty()) item["extentFrom"] = extentFrom;
    return item;
}

json Range(const float* samples, size_t count) {
    float low = INFINITY, high = -INFINITY;
    for (size_t i = 0; i < count; ++i) {
        float v = samples[i];
        if (std::isnan(v)) continue;
        low = std::min(low, v);
        high = std::max(high, v);
    }
    if (low > high) return json{nullptr, nullptr};
    return json{low, high};
}

// One export's files, written as soon as its device has built; the packet it
// holds goes when it is done.
struct ExportJob {
    const ExportEntry* entry = nullptr;
    Orogen::PacketRef packet;
    bool view = false;  // the first output device's view: the preview when it comes
    bool candidate = false;  // may be the preview: its packet is kept
    // Results, read once every job is done.
    bool ready = false;     // a height field or bitmap came
    bool received = false;  // any packet came
    bool bitmap = false, mask = false;
    int32_t width = 0, height = 0;
    json files = json::object();
    json range;
    json pngRange;  // what the 16-bit files map onto 0..65535, when written
    double seconds = 0.0;
    std::string error;
};

basekit::host::GeoExtent ExtentOf(const basekit::host::World& world) {
    return {world.x0, world.y0, world.x1, world.y1};
}

// The files of one export in every format asked for, named into job.files;
// job.range must be set. Stops early on an interrupt.
void WriteExportFiles(ExportJob& job, const basekit::host::ImageView& image,
                      const BuildSettings& settings, const basekit::host::World& world,
                      const fs::path& folder, const basekit::host::ParallelFor& parallel) {
    basekit::host::ValueRange mapping;
    if (settings.pngRangeAuto && image.channels == 1 && !job.range[0].is_null())
        mapping = {job.range[0].get<double>(), job.range[1].get<double>()};
    const std::pair<unsigned, const char*> writers[] = {
        {kPng, "png"}, {kR32, "r32"}, {kR16, "r16"}, {kExr, "exr"}, {kTif, "tif"}};
    for (const auto& [format, extension] : writers) {
        if (!(settings.formats & format)) continue;
        if (g_interrupted) return;
        std::string fileName = job.entry->name + "." + extension;
        fs::path path = folder / fileName;
        if (format == kPng) basekit::host::WritePng(path, image, 16, parallel, mapping);
        if (format == kR16) basekit::host::WriteR16(path, image, mapping);
        if (format == kExr) basekit::host::WriteExr(path, image, settings.exrChannel);
        if (format == kTif) basekit::host::WriteGeoTiff(path, image, ExtentOf(world));
        if (format == kR32) basekit::host::WriteR32(path, image);
        job.files[extension] = fileName;
        if (format == kR32) {  // beside it, what raster tools need to open it
            std::string header = job.entry->name + ".hdr";
            basekit::host::WriteEnviHeader(folder / header, image, ExtentOf(world),
                                           world.verticalScale);
            job.files["hdr"] = header;
        }
    }
    if (settings.formats & (kPng | kR16)) job.pngRange = json{mapping.low, mapping.high};
}

// Runs export jobs beside the build on threads of their own, so that a file
// waiting on the disk holds none of the pool the devices build on; the
// encoders borrow the pool's idle workers. A job that finds every export
// thread busy runs on the caller: fields never pile up waiting.
class Exporter {
public:
    Exporter(basekit::host::WorkerThreadPool& pool, const BuildSettings& settings,
             const basekit::host::World& world, const fs::path& folder, uint32_t threads,
             PageWriter* page)
        : pool(pool), settings(settings), world(world), folder(folder), page(page) {
        try {
            for (uint32_t i = 0; i < threads; ++i) workers.emplace_back([this] { Serve(); });
        } catch (const std::system_error& e) {
            // Fewer export threads: a job finding none idle runs on the caller.
            std::fprintf(stderr, "orogen: warning: only %zu of %u export threads could be started (%s)\n",
                         workers.size(), threads, e.what());
        }
    }
    ~Exporter() {
        Wait();
        {
            std::lock_guard<std::mutex> guard(mutex);
            stopping = true;
        }
        wake.notify_all();
        for (std::thread& worker : workers) worker.join();
    }

    void Start(ExportJob& job) {
        {
            std::lock_guard<std::mutex> guard(mutex);
            if (idleWorkers > queue.size()) {
                queue.push_back(&job);
                ++pending;
                wake.notify_one();
                return;
            }
        }
        Write(job);
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(mutex);
        idle.wait(lock, [&] { return pending == 0; });
    }

private:
    void Serve() {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            ++idleWorkers;
            wake.wait(lock, [&] { return stopping || !queue.empty(); });
            --idleWorkers;
            if (queue.empty()) return;
            ExportJob* job = queue.front();
            queue.pop_front();
            lock.unlock();
            Write(*job);
            lock.lock();
            if (--pending == 0) idle.notify_all();
        }
    }
    void Write(ExportJob& job) {
        auto start = std::chrono::steady_clock::now();
        const Orogen::QXPacket& packet = *job.packet;
        const basekit::host::ImageView image(packet.grid.width, packet.grid.height,
                                             packet.GetKind() == Orogen::kBitmap ? 3 : 1,
                                             packet.samples);
        basekit::host::ParallelFor parallel = [this](size_t count,
                                                     const std::function<void(size_t)>& body) {
            pool.ParallelFor(count, body);
        };
        try {
            job.range = Range(image.samples, static_cast<size_t>(packet.PointCount()) * image.channels);
            WriteExportFiles(job, image, settings, world, folder, parallel);
            if (page) page->WriteData(job.entry->name, image, job.mask);
        } catch (const std::exception& e) {
            job.error = e.what();
        }
        job.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        // Kept only where it may be the preview.
        if (!job.candidate) job.packet.Release();
    }

    basekit::host::WorkerThreadPool& pool;
    const BuildSettings& settings;
    const basekit::host::World& world;
    const fs::path folder;
    PageWriter* page;
    std::mutex mutex;
    std::condition_variable wake, idle;
    std::deque<ExportJob*> queue;
    size_t pending = 0, idleWorkers = 0;
    bool stopping = false;
    std::vector<std::thread> workers;
};

// A new folder of its own in `dir`, named `prefix`<pid>-<random>: one planted
// at a name guessed beforehand (a link elsewhere) is never used.
fs::path NewFolder(const fs::path& dir, const std::string& prefix, const char* what) {
    std::error_code error;
    for (int attempt = 0; attempt < 8 && !error; ++attempt) {
        fs::path folder = dir / (prefix + std::to_string(basekit::host::ProcessId()) + "-" +
                                 std::to_string(std::random_device{}()));
        if (fs::create_directory(folder, error)) return folder;
    }
    throw std::runtime_error(std::string("cannot create a ") + what + " folder in " + dir.string() +
                             ": " + (error ? error.message() : "it exists already"));
}

// Where paged outputs go while a build runs with a memory budget: a folder in
// the output folder, removed whatever ends the build.
class SwapFolder {
public:
    SwapFolder(basekit::host::Host& host, const fs::path& outputDir) : host(host) {
        folder = NewFolder(outputDir, ".orogen-swap-", "swap");
        previous = host.SwapDirectory();
        host.Network().SetSwapDirectory(folder);
    }
    ~SwapFolder() {
        std::error_code ignored;
        if (fs::is_directory(previous, ignored)) host.Network().SetSwapDirectory(previous);
        fs::remove_all(folder, ignored);
    }

private:
    basekit::host::Host& host;
    fs::path folder, previous;
};

// The files the folder's manifest lists, by the export that wrote them ("" for
// the preview). Null when there is no manifest; a manifest that cannot be
// read lists nothing, so that nothing is removed on its word.
std::optional<std::multimap<std::string, std::string>> PreviousFiles(const fs::path& dir) {
    std::error_code error;
    if (!fs::is_regular_file(dir / "manifest.json", error)) return std::nullopt;
    std::multimap<std::string, std::string> files;
    std::ifstream in(dir / "manifest.json", std::ios::binary);
    json manifest = json::parse(in, nullptr, false);
    if (manifest.is_discarded() || !manifest.is_object()) return files;
    auto add = [&](const std::string& owner, const json& name) {
        if (name.is_string() && PlainFileName(name.get<std::string>()))
            files.emplace(owner, name.get<std::string>());
    };
    if (manifest.contains("outputs") && manifest["outputs"].is_array())
        for (const json& output : manifest["outputs"]) {
            if (!output.is_object() || !output.contains("files") || !output["files"].is_object())
                continue;
            std::string owner = output.value("name", std::string());
            for (const auto& [format, name] : output["files"].items()) add(owner, name);
        }
    if (manifest.contains("preview") && manifest["preview"].is_object() &&
        manifest["preview"].contains("file"))
        add("", manifest["preview"]["file"]);
    return files;
}

// The export --preview=ID names: by its name, else the first of device ID.
// Throws UsageError for a name that is neither.
std::optional<size_t> PreviewIndex(const std::vector<ExportEntry>& exports,
                                   const BuildSettings& settings) {
    if (!settings.preview || settings.previewOf.empty()) return std::nullopt;
    for (size_t i = 0; i < exports.size(); ++i)
        if (exports[i].name == settings.previewOf) return i;
    for (size_t i = 0; i < exports.size(); ++i)
        if (exports[i].device == settings.previewOf) return i;
    std::string list;
    for (const ExportEntry& entry : exports) list += (list.empty() ? "\"" : ", \"") + entry.name + "\"";
    throw UsageError("--preview: no export or device \"" + settings.previewOf +
                     "\"; exports: " + (list.empty() ? "none" : list));
}

bool ProcessAlive(long id) {
#ifdef _WIN32
    HANDLE process = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, static_cast<DWORD>(id));
    if (!process) return GetLastError() == ERROR_ACCESS_DENIED;
    DWORD code = 0;
    const bool running = GetExitCodeProcess(process, &code) && code == STILL_ACTIVE;
    CloseHandle(process);
    return running;
#else
    return id > 0 && (kill(static_cast<pid_t>(id), 0) == 0 || errno == EPERM);
#endif
}

// One generation at a time: a build writes its files into a staging folder
// of its own inside the output folder and moves them into place only when
// it ends; an interrupted build takes its folder away, a killed one leaves it
// for the next build to remove. Staging folders of builds still running are
// left alone.
//
// The move itself is undoable: a journal names every entry first, each old
// entry is moved aside into the staging folder before the new one goes in,
// and the journal is removed once all are in. A build killed while moving
// leaves the journal, and the next build puts the old entries back.
class StagingFolder {
public:
    static constexpr const char* kPrefix = ".orogen-staging-";

    explicit StagingFolder(const fs::path& outputDir) : outputDir(outputDir) {
        RemoveLeftovers(outputDir);
        folder = NewFolder(outputDir, kPrefix, "staging");
    }
    ~StagingFolder() {
        std::error_code ignored;
        if (!folder.empty()) fs::remove_all(folder, ignored);
    }
    const fs::path& Path() const { return folder; }

    // Everything staged goes into place, manifest.json last, and `removed`
    // leaves the output folder; on failure the folder is put back as it was.
    void Commit(const std::vector<std::string>& removed) {
        std::vector<std::string> added;
        for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
            const std::string name = entry.path().filename().string();
            if (name != kJournal && name != kAside) added.push_back(name);
        }
        std::sort(added.begin(), added.end(), [](const std::string& a, const std::string& b) {
            return (a == "manifest.json") < (b == "manifest.json") ||
                   ((a == "manifest.json") == (b == "manifest.json") && a < b);
        });
        basekit::host::WriteTextFile(folder / kJournal,
                                     json{{"added", added}, {"removed", removed}}.dump() + "\n");
        std::string failure;
        std::error_code error;
        fs::create_directory(folder / kAside, error);
        for (size_t i = 0; i < added.size() + removed.size() && !error; ++i) {
            const bool adding = i < added.size();
            const std::string& name = adding ? added[i] : removed[i - added.size()];
            if (fs::symlink_status(outputDir / name, error).type() != fs::file_type::not_found)
                fs::rename(outputDir / name, folder / kAside / name, error);
            else
                error.clear();
            if (!error && adding) fs::rename(folder / name, outputDir / name, error);
            if (error) failure = "cannot move " + name + " into " + outputDir.string() + ": " + error.message();
        }
        if (failure.empty()) {
            fs::remove(folder / kJournal, error);  // done: what is aside goes with the folder
            return;
        }
        if (!Undo(folder, outputDir)) {
            failure += "; the previous files are kept in " + folder.string();
            folder.clear();
        }
        throw std::runtime_error(failure);
    }

private:
    static constexpr const char* kJournal = ".moving.json";
    static constexpr const char* kAside = ".previous";

    // Puts back what a commit in `staging` had moved; false where something
    // could not be, so that the folder holding it is kept.
    static bool Undo(const fs::path& staging, const fs::path& outputDir) try {
        std::ifstream file(staging / kJournal, std::ios::binary);
        const json journal = json::parse(file, nullptr, false);
        if (!journal.is_object()) return false;
        bool whole = true;
        std::error_code error;
        for (const json& entry : journal.value("added", json::array())) {
            const std::string name = entry.get<std::string>();
            // Moved in already: it is no longer staged, but is in the output folder.
            if (fs::symlink_status(staging / name, error).type() == fs::file_type::not_found &&
                fs::symlink_status(outputDir / name, error).type() != fs::file_type::not_found) {
                fs::remove_all(outputDir / name, error);
                whole = whole && !error;
            }
        }
        for (const char* list : {"added", "removed"})
            for (const json& entry : journal.value(list, json::array())) {
                const fs::path aside = staging / kAside / entry.get<std::string>();
                if (fs::symlink_status(aside, error).type() == fs::file_type::not_found) continue;
                fs::rename(aside, outputDir / entry.get<std::string>(), error);
                whole = whole && !error;
            }
        if (whole) fs::remove(staging / kJournal, error);
        return whole;
    } catch (const std::exception&) {
        return false;  // a journal not of our making
    }

    static void RemoveLeftovers(const fs::path& outputDir) {
        std::error_code error;
        for (const fs::directory_entry& entry : fs::directory_iterator(outputDir, error)) {
            const std::string name = entry.path().filename().string();
            if (name.rfind(kPrefix, 0) != 0 || entry.is_symlink(error) || !entry.is_directory(error)) continue;
            // Only names this class makes: the prefix, a process id, '-', digits.
            const char* digits = name.c_str() + std::strlen(kPrefix);
            char* end = nullptr;
            const long owner = std::strtol(digits, &end, 10);
            if (end == digits || *end != '-' || !std::isdigit(static_cast<unsigned char>(end[1])) ||
                owner <= 0 || ProcessAlive(owner))
                continue;
            std::error_code ignored;
            // Killed while moving into place: the old entries go back first.
            if (fs::exists(entry.path() / kJournal, ignored) && !Undo(entry.path(), outputDir)) {
                std::fprintf(stderr, "orogen: warning: a killed build's files could not all be put back; "
                                     "the rest are in %s\n", entry.path().string().c_str());
                continue;
            }
            fs::remove_all(entry.path(), ignored);
        }
    }

    fs::path outputDir;
    fs::path folder;
};

}  // namespace

int BuildAndExport(Project& project, const BuildSettings& settings) {
    Network& network = *project.network;
    if (settings.resolution) {
        network.world.width = settings.resolution->first;
        network.world.height = settings.resolution->second;
    }
    CheckExports(network, project.exports);
    const std::optional<size_t> previewIndex = PreviewIndex(project.exports, settings);
    PrepareOutputFolder(settings.outputDir);
    std::optional<std::multimap<std::string, std::string>> previous;
    if (settings.clean) previous = PreviousFiles(settings.outputDir);

    uint32_t threads = settings.threads ? settings.threads : std::max(1u, std::thread::hardware_concurrency());
    const std::string exrThreads = basekit::host::SetExrThreads(threads > 1 ? static_cast<int>(threads) : 0);
    if (!exrThreads.empty())
        std::fprintf(stderr, "orogen: warning: no threads could be started for EXR files (%s); they are written on the build's\n",
                     exrThreads.c_str());
    ProgressLine progress(stderr, !settings.quiet && isatty(fileno(stderr)));
    basekit::host::BuildOptions options;
    options.workers = threads - 1;
    options.memoryBudget = settings.memoryBudget;
    options.releaseOutputs = true;
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

    std::optional<SwapFolder> swap;
    if (settings.memoryBudget > 0) swap.emplace(network.GetHost(), settings.outputDir);

    // Each export is written as soon as its device has built.
    std::vector<ExportJob> jobs(project.exports.size());
    std::multimap<std::string, ExportJob*> jobsOf;
    for (size_t i = 0; i < jobs.size(); ++i) {
        jobs[i].entry = &project.exports[i];
        jobsOf.emplace(project.exports[i].device, &jobs[i]);
    }
    // The first output device's view is the preview, instead of orogen's own shading.
    for (const std::string& id : network.Ids()) {
        if (!basekit::host::IsViewDevice(network.Get(id))) continue;
        for (ExportJob& job : jobs)
            if (job.entry->device == id && job.entry->output == 0) job.view = true;
        break;
    }
    // What may be the preview: the export named, or every one.
    for (size_t i = 0; i < jobs.size(); ++i)
        jobs[i].candidate = settings.preview && (!previewIndex || i == *previewIndex);
    // One export thread per build thread beyond the first; on one thread the
    // caller writes each export after its device.
    StagingFolder staging(settings.outputDir);
    std::optional<PageWriter> page;
    if (settings.html) page.emplace(staging.Path(), network.world, settings.pageFiles);
    Exporter exporter(network.GetHost().Workers(), settings, network.world, staging.Path(), threads - 1,
                      page ? &*page : nullptr);
    options.onDeviceDone = [&](const DeviceReport& done) {
        if (done.status != BuildStatus::Built) return;
        auto [first, last] = jobsOf.equal_range(done.id);
        for (auto at = first; at != last; ++at) {
            ExportJob& job = *at->second;
            Orogen::PacketRef packet = network.Output(job.entry->device, job.entry->output);
            job.received = static_cast<bool>(packet);
            if (!packet || (packet->GetKind() != Orogen::kHeightField && packet->GetKind() != Orogen::kBitmap) ||
                !packet->samples)
                continue;
            job.bitmap = packet->GetKind() == Orogen::kBitmap;
            job.mask = packet->maskFlag != 0;
            job.width = packet->grid.width;
            job.height = packet->grid.height;
            job.packet = std::move(packet);
            job.ready = true;
            exporter.Start(job);
        }
    };

    InterruptGuard guard(network);
    BuildReport report = network.Build(options);
    for (const std::string& warning : report.warnings) std::fprintf(stderr, "orogen: warning: %s\n", warning.c_str());
    exporter.Wait();
    progress.Finish();
    if (g_interrupted) {
        std::fprintf(stderr, "orogen: interrupted; the manifest was not updated\n");
        return kExitInterrupted;
    }
    for (const ExportJob& job : jobs)
        if (!job.error.empty()) throw std::runtime_error(job.error);

    json outputs = json::array();
    json missing = json::array();
    const ExportJob* previewOf = nullptr;
    std::unordered_map<std::string, const DeviceReport*> reportOf;
    for (const DeviceReport& d : report.devices) reportOf.emplace(d.id, &d);
    for (const ExportJob& job : jobs) {
        const ExportEntry& entry = *job.entry;
        auto found = reportOf.find(entry.device);
        const DeviceReport* built = found == reportOf.end() ? nullptr : found->second;
        if (!job.ready) {
            std::string why;
            if (!built)
                why = "\"" + entry.device + "\" was not built";
            else if (built->status != BuildStatus::Built)
                why = "\"" + entry.device + "\" " + StatusName(built->status) +
                      (built->message.empty() ? "" : ": " + built->message);
            else if (!job.received)
                why = "output " + std::to_string(entry.output) + " of \"" + entry.device +
                      "\" holds nothing: the device stored no packet there in this build";
            else
                why = "output " + std::to_string(entry.output) + " of \"" + entry.device +
                      "\" holds no height field or bitmap";
            json item = {{"name", entry.name}, {"device", entry.device}, {"output", entry.output}, {"reason", why}};
            // Files of an earlier build stay, marked as not of this one.
            json stale = json::array();
            for (const char* extension : {"png", "r32", "exr"}) {
                std::error_code ignored;
                const std::string file = entry.name + "." + extension;
                if (fs::is_regular_file(settings.outputDir / file, ignored)) stale.push_back(file);
            }
            if (!stale.empty()) item["stale"] = stale;
            missing.push_back(std::move(item));
            continue;
        }
        outputs.push_back({{"name", entry.name},
                           {"device", entry.device},
                           {"output", entry.output},
                           {"kind", job.bitmap ? "bitmap" : "heightfield"},
                           {"width", job.width},
                           {"height", job.height},
                           {"mask", job.mask},
                           {"min", job.range[0]},
                           {"max", job.range[1]},
                           {"files", job.files},
                           {"seconds", job.seconds}});
        if (!job.pngRange.is_null()) outputs.back()["pngRange"] = job.pngRange;
    }
    // The preview: the export named, else the first view, else the first height
    // field, else the first bitmap.
    if (settings.preview) {
        for (const ExportJob& job : jobs)
            if (job.ready && job.packet && job.candidate && job.view && !previewOf) previewOf = &job;
        for (bool bitmap : {false, true})
            for (const ExportJob& job : jobs)
                if (job.ready && job.packet && job.candidate && job.bitmap == bitmap && !previewOf)
                    previewOf = &job;
        if (!previewOf)
            std::fprintf(stderr, "orogen: --preview: nothing to preview: %s\n",
                         settings.previewOf.empty()
                             ? "no export holds a height field or bitmap"
                             : ("\"" + settings.previewOf + "\" holds no height field or bitmap in this build")
                                   .c_str());
    }

    json manifest;
    manifest["world"] = WorldJson(network.world, project.extentFrom);
    manifest["outputs"] = outputs;
    if (!missing.empty()) manifest["missing"] = missing;
    if (previewOf) {
        const Orogen::QXPacket& packet = *previewOf->packet;
        Image picture;
        if (previewOf->bitmap) {
            const float* rgb = packet.samples;
            picture = Image{packet.grid.width, packet.grid.height, 3,
                            std::vector<float>(rgb, rgb + packet.PointCount() * 3)};
        } else {
            Image heights{packet.grid.width, packet.grid.height, 1,
                          std::vector<float>(packet.samples, packet.samples + packet.PointCount())};
            picture = RenderPreview(heights, network.world.ToGrid(), network.globals.waterLevel,
                                    network.globals.lightDirection);
        }
        basekit::host::WritePng8(staging.Path() / "preview.png", picture);
        manifest["preview"] = {{"file", "preview.png"}, {"of", previewOf->entry->name}};
    }
    json devices = json::array();
    for (const DeviceReport& d : report.devices) {
        json item = {{"id", d.id},
                     {"type", network.TypeOf(d.id).typeName},
                     {"status", StatusName(d.status)},
                     {"seconds", d.seconds},
                     {"peakBytes", d.peakBytes}};
        if (!d.message.empty()) item["message"] = d.message;
        devices.push_back(std::move(item));
    }
    manifest["devices"] = devices;
    if (g_interrupted) {
        std::fprintf(stderr, "orogen: interrupted; the manifest was not updated\n");
        return kExitInterrupted;
    }
    // What the previous build wrote and this one did not: only regular files
    // the previous manifest names, never one this build wrote, nor the old
    // files of an export that is missing now.
    std::vector<std::string> stale;
    if (previous) {
        std::set<std::string> kept = {"manifest.json"};
        for (const json& output : outputs)
            for (const auto& [format, name] : output["files"].items()) kept.insert(name.get<std::string>());
        if (manifest.contains("preview")) kept.insert(manifest["preview"]["file"].get<std::string>());
        for (const json& item : missing)
            for (auto [at, end] = previous->equal_range(item["name"].get<std::string>()); at != end; ++at)
                kept.insert(at->second);
        std::error_code error;
        for (const auto& [owner, name] : *previous)
            if (!kept.count(name) && fs::symlink_status(settings.outputDir / name, error).type() ==
                                         fs::file_type::regular &&
                std::find(stale.begin(), stale.end(), name) == stale.end())
                stale.push_back(name);
        if (!stale.empty()) manifest["removed"] = stale;
    }
    // Into place: the files and the page, then the manifest that describes them.
    basekit::host::WriteTextFile(staging.Path() / "manifest.json", manifest.dump(2) + "\n");
    if (page) page->Finish(manifest);
    staging.Commit(stale);

    if (!settings.quiet) {
        PrintSummary(network, report);
        if (!project.extentFrom.empty())
            std::printf("world extent from the GeoTIFF of \"%s\"\n", project.extentFrom.c_str());
        std::printf("wrote %zu of %zu outputs to %s\n", outputs.size(), project.exports.size(),
                    settings.outputDir.string().c_str());
        if (!stale.empty()) std::printf("removed %zu files of the previous build\n", stale.size());
    }
    for (const json& item : missing)
        std::fprintf(stderr, "orogen: export \"%s\" is missing: %s\n",
                     item["name"].get<std::string>().c_str(), item["reason"].get<std::string>().c_str());
    // A device that did not build counts even where no export reads it; one
    // switched off is no failure.
    size_t failed = 0;
    for (const DeviceReport& d : report.devices) {
        if (d.status == BuildStatus::Built || d.status == BuildStatus::Disabled) continue;
        ++failed;
        if (jobsOf.count(d.id)) continue;  // said above, with its export
        std::fprintf(stderr, "orogen: device \"%s\" %s%s\n", d.id.c_str(), StatusName(d.status),
                     d.message.empty() ? "" : (": " + d.message).c_str());
    }
    if (settings.keepGoing || (missing.empty() && failed == 0)) return kExitOk;
    return kExitDeviceFailed;
}

}  // namespace orogen
