// Running the orogen program from tests: a scratch folder, the program's
// path, and a run that captures exit code, standard output and error.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "TempDir.h"

namespace orogen::testing {

namespace fs = std::filesystem;

using Scratch = basekit::testing::TempDir;

inline std::string ReadText(const fs::path& path) { return basekit::testing::ReadBytes(path); }
inline void WriteText(const fs::path& path, const std::string& text) {
    basekit::testing::WriteBytes(path, text);
}
using basekit::testing::ListFolder;

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

#ifdef _WIN32

// One argument as CommandLineToArgvW splits it back: quoted, with the
// backslashes before a quote doubled.
inline std::wstring QuoteArgument(const std::wstring& text) {
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (wchar_t c : text) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == L'"' ? 2 * backslashes + 1 : backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(2 * backslashes, L'\\');
    return quoted + L"\"";
}

// Runs orogen with `args` in `workDir`, with the variable `env` (NAME=value)
// set for it alone.
inline RunResult RunOrogen(const std::vector<std::string>& args, const fs::path& workDir,
                           const std::string& env = "BASEKIT64_MODULE=") {
    static int serial = 0;
    const fs::path captured = fs::temp_directory_path() /
                              ("orogen-run-" + std::to_string(GetCurrentProcessId()) + "-" +
                               std::to_string(serial++));
    const fs::path outPath = captured.string() + ".out", errPath = captured.string() + ".err";

    std::wstring command = QuoteArgument(OrogenPath().make_preferred().wstring());
    for (const std::string& arg : args) command += L" " + QuoteArgument(fs::path(arg).wstring());

    SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
    auto open = [&](const fs::path& path, bool write) {
        return CreateFileW(path.c_str(), write ? GENERIC_WRITE : GENERIC_READ,
                           FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                           write ? CREATE_ALWAYS : OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    };
    HANDLE in = open("NUL", false), out = open(outPath, true), err = open(errPath, true);

    // The child inherits this process's environment: set the variable around
    // the start and put the old value back.
    const size_t equals = env.find('=');
    const std::wstring name = fs::path(env.substr(0, equals)).wstring();
    const std::wstring value = fs::path(env.substr(equals + 1)).wstring();
    std::vector<wchar_t> previous(32768);
    const DWORD previousLength = GetEnvironmentVariableW(name.c_str(), previous.data(), 32768);
    SetEnvironmentVariableW(name.c_str(), value.empty() ? nullptr : value.c_str());

    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in;
    startup.hStdOutput = out;
    startup.hStdError = err;
    PROCESS_INFORMATION process{};
    // Wine now and then refuses a start with an internal error: try again.
    bool started = false;
    DWORD startError = 0;
    for (int attempt = 0; attempt < 3 && !started; ++attempt) {
        started = CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                 workDir.c_str(), &startup, &process);
        if (started) break;
        startError = GetLastError();
        if (startError != ERROR_INTERNAL_ERROR) break;
        Sleep(200);
    }
    SetEnvironmentVariableW(name.c_str(), previousLength ? previous.data() : nullptr);
    CloseHandle(in);
    CloseHandle(out);
    CloseHandle(err);

    RunResult result;
    if (started) {
        WaitForSingleObject(process.hProcess, INFINITE);
        DWORD code = 0;
        if (GetExitCodeProcess(process.hProcess, &code)) result.code = int(code);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    } else {
        ADD_FAILURE() << "cannot start " << OrogenPath().string() << ": error " << startError;
    }
    // Text written in text mode ends its lines with CR LF here.
    auto lines = [](std::string text) {
        for (size_t at; (at = text.find("\r\n")) != std::string::npos;) text.erase(at, 1);
        return text;
    };
    result.out = lines(ReadText(outPath));
    result.err = lines(ReadText(errPath));
    std::error_code ignored;
    fs::remove(outPath, ignored);
    fs::remove(errPath, ignored);
    return result;
}

#else

inline std::string Quote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// Runs orogen with `args` in `workDir`; `env` is prefixed as NAME=value words,
// `launcher` (a command that runs the rest) before the program.
inline RunResult RunOrogen(const std::vector<std::string>& args, const fs::path& workDir,
                           const std::string& env = "BASEKIT64_MODULE=",
                           const std::string& launcher = "") {
    static int serial = 0;
    const std::string captured = (fs::temp_directory_path() / "orogen-run-").string() +
                                 std::to_string(::getpid()) + "-" + std::to_string(serial++);
    std::string command = "cd " + Quote(workDir.string()) + " && env " + env + " " + launcher +
                          " " + Quote(OrogenPath().string());
    for (const std::string& arg : args) {
        command += ' ';
        command += Quote(arg);
    }
    command += " >";
    command += Quote(captured + ".out");
    command += " 2>";
    command += Quote(captured + ".err");
    command += " </dev/null";
    const int status = std::system(command.c_str());
    RunResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadText(captured + ".out"),
                     ReadText(captured + ".err")};
    fs::remove(captured + ".out");
    fs::remove(captured + ".err");
    return result;
}

// A launcher under which the program can start no thread: a limit of one
// process for its user (root is exempt, so root runs it as nobody). Empty
// where the tools are missing.
inline std::string ThreadlessLauncher() {
    const bool root = ::geteuid() == 0;
    if (std::system(root ? "command -v setpriv >/dev/null && command -v prlimit >/dev/null"
                         : "command -v prlimit >/dev/null") != 0)
        return {};
    return std::string(root ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "") +
           "prlimit --nproc=1 --";
}

#endif

}  // namespace orogen::testing
