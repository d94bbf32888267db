// Running the orogen program from tests: a scratch folder, the program's
// path, and a run that captures exit code, standard output and error.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace orogen::testing {

namespace fs = std::filesystem;

class Scratch {
public:
    Scratch() {
        std::random_device random;
        for (;;) {
            path_ = fs::temp_directory_path() / ("orogen-test-" + std::to_string(random()));
            if (fs::create_directory(path_)) break;
        }
    }
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }

private:
    fs::path path_;
};

inline std::string ReadText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteText(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

// Every name in `dir` (not recursive), sorted; empty when it does not exist.
inline std::vector<std::string> Listing(const fs::path& dir) {
    std::vector<std::string> names;
    std::error_code error;
    if (!fs::is_directory(dir, error)) return names;
    for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

inline fs::path OrogenPath() {
#ifdef OROGEN_PATH
    return OROGEN_PATH;
#else
    // The build puts the tool in cli/ beside plugin/.
    return fs::path(BASEKIT64_MODULE_PATH).parent_path().parent_path() / "cli" / "orogen";
#endif
}

struct RunResult {
    int code = -1;
    std::string out;
    std::string err;
};

inline std::string Quote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// Runs orogen with `args` in `workDir`; `env` is prefixed as NAME=value words.
inline RunResult RunOrogen(const std::vector<std::string>& args, const fs::path& workDir,
                           const std::string& env = "BASEKIT64_MODULE=") {
    static int serial = 0;
    fs::path captured = fs::temp_directory_path() /
                        ("orogen-run-" + std::to_string(::getpid()) + "-" + std::to_string(serial++));
    std::string command = "cd " + Quote(workDir.string()) + " && env " + env + " " +
                          Quote(OrogenPath().string());
    for (const std::string& arg : args) {
        command += ' ';
        command += Quote(arg);
    }
    command += " >";
    command += Quote(captured.string() + ".out");
    command += " 2>";
    command += Quote(captured.string() + ".err");
    command += " </dev/null";
    int status = std::system(command.c_str());
    RunResult result;
    result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.out = ReadText(captured.string() + ".out");
    result.err = ReadText(captured.string() + ".err");
    fs::remove(captured.string() + ".out");
    fs::remove(captured.string() + ".err");
    return result;
}

}  // namespace orogen::testing
