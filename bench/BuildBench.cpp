// Whole builds with the orogen tool: wall time, peak memory and the time spent
// writing files, for each size, format set and thread count asked for.
//
//   build_bench [--sizes 2049,4097] [--threads 1,N] [--formats r32,all]
//               [--memory SIZE] [--network FILE] [--orogen PROGRAM] [--out DIR]
//
// N is every core. Each build runs in its own process, so that its peak
// resident memory is its own. "devices s" adds the devices' build times,
// "export s" the time each output's files took to write (on other threads,
// beside the devices), and "export %" is export s over both.

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    for (std::string part; std::getline(in, part, ',');)
        if (!part.empty()) parts.push_back(part);
    return parts;
}

struct Run {
    int code = -1;
    double wall = 0.0;
    long peakKiB = 0;
};

Run Spawn(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    Run run;
    auto start = std::chrono::steady_clock::now();
    pid_t child = fork();
    if (child == 0) {
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child) return run;
    run.wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.peakKiB = usage.ru_maxrss;
    return run;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> sizes = {"2049", "4097"}, formats = {"r32", "all"};
    unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::string> threads = {"1", std::to_string(cores)};
    std::string memory, network = BASEKIT64_BENCH_NETWORK, orogen = BASEKIT64_BENCH_OROGEN;
    fs::path out = fs::temp_directory_path() / ("orogen-bench-" + std::to_string(getpid()));
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string option = argv[i], value = argv[i + 1];
        if (option == "--sizes") sizes = Split(value);
        else if (option == "--threads") threads = Split(value);
        else if (option == "--formats") formats = Split(value);
        else if (option == "--memory") memory = value;
        else if (option == "--network") network = value;
        else if (option == "--orogen") orogen = value;
        else if (option == "--out") out = value;
        else {
            std::fprintf(stderr, "build_bench: unknown option %s\n", option.c_str());
            return 2;
        }
    }
    if (argc % 2 == 0) {
        std::fprintf(stderr, "build_bench: %s wants a value\n", argv[argc - 1]);
        return 2;
    }
    for (std::string& t : threads)
        if (t == "N") t = std::to_string(cores);

    std::printf("%s, %u cores%s\n", network.c_str(), cores,
                memory.empty() ? "" : (", --memory " + memory).c_str());
    std::printf("%-11s %-7s %7s %8s %9s %10s %9s %8s\n", "size", "formats", "threads", "wall s",
                "peak MiB", "devices s", "export s", "export %");
    int failures = 0;
    for (const std::string& size : sizes)
        for (const std::string& format : formats)
            for (const std::string& thread : threads) {
                std::vector<std::string> args = {orogen, "build", network, "--quiet", "-o",
                                                 out.string(), "--resolution", size + "x" + size,
                                                 "--threads", thread};
                if (format != "all") args.insert(args.end(), {"--format", format});
                if (!memory.empty()) args.insert(args.end(), {"--memory", memory});
                Run run = Spawn(args);
                double devices = 0.0, exports = 0.0;
                std::ifstream file(out / "manifest.json");
                if (run.code == 0 && file) {
                    nlohmann::json manifest = nlohmann::json::parse(file);
                    for (const auto& d : manifest["devices"]) devices += d["seconds"].get<double>();
                    for (const auto& o : manifest["outputs"])
                        exports += o.value("seconds", 0.0);
                } else {
                    ++failures;
                    std::printf("build failed (exit %d): %s\n", run.code, size.c_str());
                    continue;
                }
                std::printf("%-11s %-7s %7s %8.2f %9.0f %10.2f %9.2f %7.0f%%\n",
                            (size + "x" + size).c_str(), format.c_str(), thread.c_str(), run.wall,
                            run.peakKiB / 1024.0, devices, exports,
                            100.0 * exports / std::max(devices + exports, 1e-9));
                std::fflush(stdout);
            }
    std::error_code ignored;
    fs::remove_all(out, ignored);
    return failures ? 1 : 0;
}
