// orogen serve: the page of a network on 127.0.0.1, rebuilt whenever the
// network file or a file it reads is saved.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>
#include <vector>

#include "cli/Commands.h"
#include "cli/Html.h"

#ifdef OROGEN_HAVE_HTTPLIB
#include <httplib.h>
#endif

namespace orogen {

namespace fs = std::filesystem;

#ifndef OROGEN_HAVE_HTTPLIB

int RunServe(basekit::host::Host&, const ServeSettings&) {
    std::fprintf(stderr, "orogen: this orogen was built without a web server (cpp-httplib)\n");
    return kExitError;
}

#else

namespace {

using json = nlohmann::json;

// The network file and every file it names, with what they were when last read.
class Watch {
  public:
    explicit Watch(fs::path file) : file(std::move(file)) { Changed(); }

    // True once something changed since the last call.
    bool Changed() {
        std::vector<fs::path> files{file};
        try {
            std::ifstream in(file, std::ios::binary);
            json network = json::parse(in, nullptr, false);
            if (network.is_object() && network.contains("devices") && network["devices"].is_array())
                for (const json& device : network["devices"])
                    if (device.is_object() && device.contains("file") && device["file"].is_string())
                        files.push_back(file.parent_path() /
                                        fs::path(device["file"].get<std::string>()));
        } catch (const std::exception&) {
            // An unreadable file is still watched for its next save.
        }
        std::vector<std::string> now;
        for (const fs::path& path : files) {
            std::error_code error;
            auto time = fs::last_write_time(path, error);
            auto size = fs::file_size(path, error);
            now.push_back(path.string() + "|" + std::to_string(time.time_since_epoch().count()) +
                          "|" + std::to_string(error ? 0 : size));
        }
        bool changed = now != seen;
        seen = std::move(now);
        return changed;
    }

  private:
    fs::path file;
    std::vector<std::string> seen;
};

const char* ContentType(const fs::path& path) {
    const std::string ext = path.extension().string();
    if (ext == ".html") return "text/html; charset=utf-8";
    if (ext == ".js" || ext == ".cjs") return "text/javascript; charset=utf-8";
    if (ext == ".css") return "text/css; charset=utf-8";
    if (ext == ".json") return "application/json";
    if (ext == ".png") return "image/png";
    if (ext == ".exr") return "image/x-exr";
    return "application/octet-stream";
}

}  // namespace

fs::path ServedFile(const fs::path& root, const std::string& requestPath) {
    // Only plain names below the root: no "..", no backslashes, no drive, no NUL.
    if (requestPath.empty() || requestPath[0] != '/' ||
        requestPath.find('\\') != std::string::npos ||
        requestPath.find('\0') != std::string::npos || requestPath.find(':') != std::string::npos)
        return {};
    fs::path relative = fs::path(requestPath.substr(1)).lexically_normal();
    for (const fs::path& part : relative)
        if (part == "..") return {};
    fs::path wanted = relative.empty() || relative == "." ? root / "index.html" : root / relative;
    std::error_code error;
    fs::path real = fs::weakly_canonical(wanted, error);
    fs::path base = fs::weakly_canonical(root, error);
    if (error) return {};
    // Links that lead out of the folder are refused too.
    auto [end, at] = std::mismatch(base.begin(), base.end(), real.begin(), real.end());
    if (end != base.end() || !fs::is_regular_file(real, error)) return {};
    return real;
}

int RunServe(basekit::host::Host& host, const ServeSettings& serve) {
    const fs::path dir = serve.outputDir;
    fs::create_directories(dir / "builds");
    WritePageFiles(dir);
    // Nothing built yet: the page waits for the first build.
    basekit::host::WriteTextFile(dir / "version.json", "{\"version\": 0}\n");

    httplib::Server server;
    // One request a connection: an idle kept-alive browser connection would
    // hold one of the server's few threads for seconds.
    server.set_keep_alive_max_count(1);
    server.Get(".*", [&](const httplib::Request& request, httplib::Response& response) {
        fs::path file = ServedFile(dir, request.path);
        if (file.empty()) {
            response.status = 404;
            response.set_content("not found\n", "text/plain");
            return;
        }
        std::ifstream in(file, std::ios::binary);
        std::ostringstream bytes;
        bytes << in.rdbuf();
        auto body = std::make_shared<std::string>(bytes.str());
        response.set_header("Cache-Control", "no-store");
        // Sent as it is: the library would otherwise compress each text file
        // for the browser, seconds for a field's data, on every request.
        response.set_content_provider(
            body->size(), ContentType(file),
            [body](size_t offset, size_t length, httplib::DataSink& sink) {
                return sink.write(body->data() + offset, length);
            });
    });
    int port = serve.port;
    if (port == 0) {
        port = server.bind_to_any_port("127.0.0.1");
    } else if (!server.bind_to_port("127.0.0.1", port)) {
        port = -1;
    }
    if (port < 0) {
        std::fprintf(stderr, "orogen: cannot listen on 127.0.0.1:%d\n", serve.port);
        return kExitError;
    }
    std::thread listening([&] { server.listen_after_bind(); });
    std::printf("serving http://127.0.0.1:%d/ from %s; watching %s\n", port, dir.string().c_str(),
                serve.file.string().c_str());
    std::fflush(stdout);

    Watch watch(serve.file);
    int version = 0, good = 0, previousGood = 0;
    for (;;) {
        ++version;
        const fs::path out = dir / "builds" / std::to_string(version);
        std::string error;
        int code = kExitOk;
        auto start = std::chrono::steady_clock::now();
        try {
            basekit::host::Project project = ReadProject(host, serve.file, serve.options);
            BuildSettings settings;
            settings.outputDir = out;
            settings.formats = 0;
            settings.html = true;
            settings.pageFiles = false;
            settings.quiet = true;
            settings.threads = serve.threads;
            const auto& world = project.network->world;
            if (static_cast<int64_t>(world.width) * world.height >
                static_cast<int64_t>(serve.resolution.first) * serve.resolution.second)
                settings.resolution = serve.resolution;
            code = BuildAndExport(project, settings);
            if (code == kExitInterrupted) break;
        } catch (const std::exception& e) {
            error = e.what();
        }
        double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        json state;
        if (error.empty()) {
            previousGood = good;
            good = version;
            std::printf("build %d: %.2f s%s\n", version, seconds,
                        code == kExitOk ? "" : ", with missing exports");
        } else {
            std::printf("build %d failed: %s\n", version, error.c_str());
            std::error_code ignored;
            fs::remove_all(out, ignored);
        }
        std::fflush(stdout);
        state["version"] = version;
        state["build"] = good;
        state["base"] = good ? "builds/" + std::to_string(good) + "/" : "";
        state["error"] = error.empty() ? json(nullptr) : json(error);
        basekit::host::WriteTextFile(dir / "version.json.tmp", state.dump() + "\n");
        fs::rename(dir / "version.json.tmp", dir / "version.json");
        // The good build before the last may still be loading in a page.
        for (const fs::directory_entry& entry : fs::directory_iterator(dir / "builds")) {
            int number = std::atoi(entry.path().filename().string().c_str());
            if (number != good && number != previousGood) {
                std::error_code ignored;
                fs::remove_all(entry.path(), ignored);
            }
        }
        while (!watch.Changed()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
        // Editors write in steps: let the save settle.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        watch.Changed();
    }
    server.stop();
    listening.join();
    return kExitInterrupted;
}

#endif

}  // namespace orogen
