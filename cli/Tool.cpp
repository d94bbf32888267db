#include "cli/Tool.h"

#include <cerrno>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "cli/ModuleLookup.h"
#include "host/ImageIO.h"

namespace orogen {

namespace fs = std::filesystem;
using basekit::host::Host;
using basekit::host::NetworkFileError;
using basekit::host::Project;

fs::path LoadModule(Host& host, const std::optional<fs::path>& module) {
    ModuleSearch search = FindModule(module, ExecutablePath());
    if (!search.found) throw std::runtime_error(DescribeFailedSearch(search));
    host.LoadModule(*search.found);  // ModuleError says what is wrong with the file
    return *search.found;
}

unsigned ParseFormats(const std::string& text) {
    unsigned formats = 0;
    std::stringstream list(text);
    std::string item;
    while (std::getline(list, item, ',')) {
        if (item == "png")
            formats |= kPng;
        else if (item == "r32")
            formats |= kR32;
        else if (item == "r16")
            formats |= kR16;
        else if (item == "tif" && !basekit::host::CanUseTiff())
            throw UsageError("--format tif: this build of orogen has no TIFF support");
        else if (item == "tif")
            formats |= kTif;
        else if (item == "exr" && !basekit::host::CanUseExr())
            throw UsageError("--format exr: this build of orogen has no EXR support");
        else if (item == "exr")
            formats |= kExr;
        else
            throw UsageError("--format: unknown format \"" + item +
                             "\"; valid: png, r32, r16, exr, tif");
    }
    if (!formats) throw UsageError("--format: no format given; valid: png, r32, r16, exr, tif");
    return formats;
}

std::string DefaultFormats() {
    return basekit::host::CanUseExr() ? "png,r32,exr" : "png,r32";
}

std::pair<int32_t, int32_t> ParseResolution(const std::string& text) {
    auto bad = [&]() {
        return UsageError("--resolution: \"" + text + "\" is not WxH with positive sizes, e.g. 1025x1025");
    };
    size_t x = text.find_first_of("xX");
    if (x == std::string::npos) throw bad();
    int32_t size[2];
    const std::string parts[2] = {text.substr(0, x), text.substr(x + 1)};
    for (int k = 0; k < 2; ++k) {
        const std::string& part = parts[k];
        auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), size[k]);
        if (part.empty() || error != std::errc() || end != part.data() + part.size() || size[k] < 1)
            throw bad();
    }
    if (static_cast<uint64_t>(size[0]) * static_cast<uint64_t>(size[1]) > basekit::host::kMaxImageSamples)
        throw UsageError("--resolution: " + text + " is more than 2^30 samples, the most a file holds");
    return {size[0], size[1]};
}

uint64_t ParseMemory(const std::string& text) {
    auto bad = [&]() {
        return UsageError("--memory: \"" + text +
                          "\" is not a size such as 512M or 8G (K, M, G, T: powers of 1024)");
    };
    uint64_t number = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || error != std::errc() || end == text.data()) throw bad();
    std::string unit(end, text.data() + text.size());
    for (char& c : unit) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (unit.size() > 1 && unit.back() == 'B') unit.pop_back();
    if (unit.size() > 1 && unit.back() == 'I') unit.pop_back();
    int shift = 0;
    if (unit == "K") shift = 10;
    else if (unit == "M") shift = 20;
    else if (unit == "G") shift = 30;
    else if (unit == "T") shift = 40;
    else if (!unit.empty() && unit != "B") throw bad();
    if (number == 0 || number > (UINT64_MAX >> shift)) throw bad();
    return number << shift;
}

basekit::host::ParseOptions::Override ParseSetting(const std::string& text) {
    const size_t equals = text.find('=');
    const std::string target = text.substr(0, equals);
    if (equals == std::string::npos || target.find('.') == std::string::npos)
        throw UsageError("--set: \"" + text + "\" is not ID.PARAM=VALUE");
    const std::string given = text.substr(equals + 1);
    nlohmann::json value = nlohmann::json::parse(given, nullptr, false);
    if (value.is_discarded() || !(value.is_number() || value.is_boolean() || value.is_string()))
        value = given;
    return {target, value, "--set " + target};
}

Project ReadProject(Host& host, const fs::path& file, const basekit::host::ParseOptions& options) {
    try {
        return basekit::host::LoadNetworkFile(host, file, options);
    } catch (const NetworkFileError& e) {
        // The file's own name is the place when it cannot be opened at all.
        if (e.Place() == file.string() || e.Place().rfind("--set ", 0) == 0)
            throw UsageError(e.what());
        throw UsageError(file.string() + ": " + e.what());
    }
}

Project ReadProjectText(Host& host, const std::string& text, const std::string& label,
                        const basekit::host::ParseOptions& options) {
    try {
        return basekit::host::ParseNetwork(host, text, fs::current_path(), options);
    } catch (const NetworkFileError& e) {
        // An override is the command line's, not the file's.
        if (e.Place().rfind("--set ", 0) == 0) throw UsageError(e.what());
        throw UsageError(label + ": " + e.what());
    }
}


}  // namespace orogen
