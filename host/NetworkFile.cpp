#include "host/NetworkFile.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <limits>
#include <set>
#include <sstream>
#include <unordered_map>

#include "host/FileInput.h"
#include "host/HostPacket.h"
#include "host/ImageIO.h"
#include "host/ValueInput.h"

namespace basekit::host {

namespace fs = std::filesystem;
using json = nlohmann::json;
using ordered_json = nlohmann::ordered_json;

NetworkFileError::NetworkFileError(const std::string& place, const std::string& message)
    : std::runtime_error(place + ": " + message), place(place), message(message) {}

namespace {

// At most `limit` bytes of `text`, cut between UTF-8 characters, with "..."
// when cut: a message never echoes a hostile value of megabytes.
std::string Shortened(std::string_view text, size_t limit = 64) {
    if (text.size() <= limit) return std::string(text);
    size_t end = limit;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return std::string(text.substr(0, end)) + "...";
}

// Control characters are shown escaped, as JSON writes them.
std::string Quoted(std::string_view text) {
    std::string quoted(1, '"');
    for (char c : Shortened(text)) {
        if (static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) {
            quoted += c;
            continue;
        }
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\u%04X", static_cast<unsigned char>(c));
        quoted += escaped;
    }
    return quoted += '"';
}

std::string QuotedList(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + Quoted(name);
    return text.empty() ? "none" : text;
}

std::string Number(double value, int digits = 15) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*g", digits, value);
    return text;
}

constexpr size_t kMaxIdLength = 64;
constexpr size_t kMaxExportNameLength = 128;
constexpr const char* kNotInNames = "/\\:*?\"<>|";
constexpr const char* kAllowedInNames =
    "ids and export names take no control characters and none of / \\ : * ? \" < > |";

[[noreturn]] void Fail(const std::string& place, const std::string& message) {
    throw NetworkFileError(place, message);
}

std::string JsonText(const json& value) {
    // Nesting is bounded at load, so the dump's recursion is too.
    if (value.is_string()) return json(Shortened(value.get_ref<const std::string&>())).dump();
    return Shortened(value.dump());
}

// Checked reads of JSON values.

void Keys(const json& object, const std::string& place,
          std::initializer_list<const char*> allowed) {
    if (!object.is_object()) Fail(place, "expected an object");
    for (const auto& item : object.items()) {
        const std::string& key = item.key();
        bool known = std::any_of(allowed.begin(), allowed.end(),
                                 [&](const char* name) { return key == name; });
        if (!known) {
            std::vector<std::string> names(allowed.begin(), allowed.end());
            Fail(place.empty() ? Shortened(key) : place + "." + Shortened(key),
                 "unknown key; valid: " + QuotedList(names));
        }
    }
}

double FiniteNumber(const json& value, const std::string& place) {
    if (!value.is_number()) Fail(place, "expected a number, not " + JsonText(value));
    double number = value.get<double>();
    if (!std::isfinite(number)) Fail(place, "expected a finite number");
    return number;
}

int64_t Integer(const json& value, const std::string& place) {
    // Unsigned first: is_number_integer() holds for unsigned numbers too.
    if (value.is_number_unsigned()) {
        uint64_t number = value.get<uint64_t>();
        if (number > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
            Fail(place, JsonText(value) + " is too large");
        return static_cast<int64_t>(number);
    }
    if (value.is_number_integer()) return value.get<int64_t>();
    if (value.is_number_float()) {
        double number = value.get<double>();
        if (std::isfinite(number) && number == std::floor(number) && std::fabs(number) < 9.0e15)
            return static_cast<int64_t>(number);
    }
    Fail(place, "expected an integer, not " + JsonText(value));
}

uint32_t Index(const json& value, const std::string& place) {
    int64_t number = Integer(value, place);
    if (number < 0 || number > std::numeric_limits<int32_t>::max())
        Fail(place, std::to_string(number) + " is not a valid index");
    return static_cast<uint32_t>(number);
}

bool Boolean(const json& value, const std::string& place) {
    if (!value.is_boolean()) Fail(place, "expected true or false, not " + JsonText(value));
    return value.get<bool>();
}

std::string String(const json& value, const std::string& place) {
    if (!value.is_string()) Fail(place, "expected a string, not " + JsonText(value));
    return value.get<std::string>();
}

std::vector<double> Numbers(const json& value, const std::string& place, size_t count,
                            const char* shape) {
    if (!value.is_array() || value.size() != count) Fail(place, std::string("expected ") + shape);
    std::vector<double> numbers;
    for (size_t i = 0; i < count; ++i)
        numbers.push_back(FiniteNumber(value[i], place + "[" + std::to_string(i) + "]"));
    return numbers;
}

const json* Member(const json& object, const char* key) {
    auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

// Levenshtein distance, ignoring case.
size_t EditDistance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t above = row[j];
            bool same = std::tolower(static_cast<unsigned char>(a[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(b[j - 1]));
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// The closest of `names` to `wanted`, and those nearly as close, at most three.
std::string Nearest(const std::vector<std::string>& names, std::string_view wanted) {
    if (names.empty()) return "none";
    std::vector<std::pair<size_t, std::string>> ranked;
    for (const std::string& name : names) ranked.emplace_back(EditDistance(wanted, name), name);
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> closest;
    for (size_t i = 0; i < ranked.size() && closest.size() < 3; ++i)
        if (ranked[i].first <= ranked[0].first + 1) closest.push_back(ranked[i].second);
    return QuotedList(closest);
}

std::string NearestTypes(const Host& host, std::string_view wanted) {
    std::vector<std::string> names;
    for (const DeviceType& type : host.Types()) names.push_back(type.typeName);
    return Nearest(names, wanted);
}

std::vector<std::string> ParameterNames(const Orogen::Device& device) {
    std::vector<std::string> names;
    for (const Orogen::ParamRecord& record : device.params.records) names.push_back(record.name);
    return names;
}

// "; nearest: ..." where there are names enough to choose from, then every one.
std::string NearestAndValid(const std::vector<std::string>& names, std::string_view wanted) {
    std::string text;
    if (names.size() > 1) text = "; nearest: " + Nearest(names, wanted);
    return text + "; valid: " + QuotedList(names);
}

// Parameters

int64_t ParseColour(const std::string& text) {
    if (text.size() != 7 || text[0] != '#') return -1;
    int64_t value = 0;
    for (size_t i = 1; i < 7; ++i) {
        char c = static_cast<char>(std::tolower(static_cast<unsigned char>(text[i])));
        int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (digit < 0) return -1;
        value = value * 16 + digit;
    }
    return value;
}

std::vector<std::string> Labels(const Orogen::ParamRecord& record) {
    std::vector<std::string> labels;
    for (const Orogen::ParamLabel& label : record.labels) labels.emplace_back(label.data());
    return labels;
}

[[noreturn]] void Invalid(const std::string& message) {
    throw std::invalid_argument(message);
}

}  // namespace

void SetParameter(Orogen::Device& device, const std::string& name, const json& value) {
    int32_t index = Orogen::FindParameter(device.params, name.c_str());
    if (index < 0) Invalid("unknown parameter" + NearestAndValid(ParameterNames(device), name));
    Orogen::ParamRecord& record = device.params.records[static_cast<size_t>(index)];
    switch (record.kind) {
        case Orogen::kParamReal: {
            if (!value.is_number()) Invalid("expected a number, not " + JsonText(value));
            double number = value.get<double>();
            float low = record.minimum.f, high = record.maximum.f;
            float cast = static_cast<float>(number);
            if (!std::isfinite(number) || !(cast >= low && cast <= high))
                Invalid(Number(number) + " is outside " + Number(low, 7) + ".." + Number(high, 7));
            record.value.f = cast;
            return;
        }
        case Orogen::kParamInteger: {
            int64_t number;
            // Text is for colours only: "#000005" is no way to write a radius.
            if (value.is_string() && Orogen::IsColourParameter(record)) {
                number = ParseColour(value.get<std::string>());
                if (number < 0)
                    Invalid("expected an integer or a colour \"#RRGGBB\", not " + JsonText(value));
            } else {
                if (!value.is_number()) Invalid("expected an integer, not " + JsonText(value));
                double given = value.get<double>();
                if (given != std::floor(given) || std::fabs(given) > 9.0e15)
                    Invalid("expected an integer, not " + JsonText(value));
                number = static_cast<int64_t>(given);
            }
            if (number < record.minimum.i || number > record.maximum.i)
                Invalid(std::to_string(number) + " is outside " + std::to_string(record.minimum.i) +
                        ".." + std::to_string(record.maximum.i));
            record.value.i = static_cast<int32_t>(number);
            return;
        }
        case Orogen::kParamBoolean:
            if (!value.is_boolean()) Invalid("expected true or false, not " + JsonText(value));
            record.value.i = value.get<bool>() ? 1 : 0;
            return;
        case Orogen::kParamChoice: {
            std::vector<std::string> labels = Labels(record);
            if (value.is_string()) {
                std::string label = value.get<std::string>();
                auto found = std::find(labels.begin(), labels.end(), label);
                if (found == labels.end())
                    Invalid("unknown choice " + Quoted(label) + "; valid: " + QuotedList(labels));
                record.value.i = record.minimum.i + static_cast<int32_t>(found - labels.begin());
                return;
            }
            int64_t count = labels.empty()
                                ? static_cast<int64_t>(record.maximum.i) - record.minimum.i + 1
                                : static_cast<int64_t>(labels.size());
            if (!value.is_number() || value.get<double>() != std::floor(value.get<double>()))
                Invalid("expected a choice label or index, not " + JsonText(value));
            double number = value.get<double>();
            if (number < 0 || number >= static_cast<double>(count))
                Invalid("index " + Number(number) + " is outside 0.." + std::to_string(count - 1));
            record.value.i = record.minimum.i + static_cast<int32_t>(number);
            return;
        }
        case Orogen::kParamAction:
            Invalid("an action, not a setting");
        default:
            Invalid("a parameter of kind " + std::to_string(record.kind) + " cannot be set");
    }
}

// Base64

namespace {
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

std::string EncodeBase64(std::string_view bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        uint32_t group = static_cast<uint8_t>(bytes[i]) << 16;
        if (i + 1 < bytes.size()) group |= static_cast<uint8_t>(bytes[i + 1]) << 8;
        if (i + 2 < bytes.size()) group |= static_cast<uint8_t>(bytes[i + 2]);
        text += kAlphabet[(group >> 18) & 63];
        text += kAlphabet[(group >> 12) & 63];
        text += i + 1 < bytes.size() ? kAlphabet[(group >> 6) & 63] : '=';
        text += i + 2 < bytes.size() ? kAlphabet[group & 63] : '=';
    }
    return text;
}

std::optional<std::string> DecodeBase64(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    auto decode = [](char c) -> int {
        if (c >= 'A' && c <= 'Z') return c - 'A';
        if (c >= 'a' && c <= 'z') return c - 'a' + 26;
        if (c >= '0' && c <= '9') return c - '0' + 52;
        if (c == '+') return 62;
        if (c == '/') return 63;
        return -1;
    };
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        bool last = i + 4 == text.size();
        int padding = 0;
        if (last && text[i + 3] == '=') padding = text[i + 2] == '=' ? 2 : 1;
        uint32_t group = 0;
        for (int k = 0; k < 4; ++k) {
            int value = k >= 4 - padding ? 0 : decode(text[i + k]);
            if (value < 0) return std::nullopt;
            group = group << 6 | static_cast<uint32_t>(value);
        }
        bytes += static_cast<char>(group >> 16);
        if (padding < 2) bytes += static_cast<char>(group >> 8 & 0xFF);
        if (padding < 1) bytes += static_cast<char>(group & 0xFF);
    }
    return bytes;
}

// Loading

namespace {

std::string At(const std::string& place, size_t index) {
    return place + "[" + std::to_string(index) + "]";
}

size_t ControlCharacter(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i)
        if (static_cast<unsigned char>(text[i]) < 0x20 || text[i] == 0x7F) return i;
    return std::string::npos;
}

std::string ControlName(char c) {
    char text[32];
    std::snprintf(text, sizeof text, "the control character U+%04X", static_cast<unsigned char>(c));
    return text;
}

bool ReservedOnWindows(std::string_view name) {
    std::string upper;
    for (char c : name.substr(0, name.find('.')))
        upper += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    static const char* const kDevices[] = {"CON", "PRN", "AUX", "NUL"};
    for (const char* device : kDevices)
        if (upper == device) return true;
    return upper.size() == 4 && (upper.starts_with("COM") || upper.starts_with("LPT")) &&
           upper[3] >= '1' && upper[3] <= '9';
}

// Ids name files too (an export is named after its device by default), so
// they follow the rule of export names: a file name on every system.
std::string FileNameProblem(std::string_view name, size_t limit) {
    if (name.empty()) return "the name is empty";
    if (name.size() > limit)
        return Quoted(name) + " is longer than " + std::to_string(limit) + " bytes";
    if (size_t at = ControlCharacter(name); at != std::string::npos)
        return Quoted(name) + " holds " + ControlName(name[at]) + "; " + kAllowedInNames;
    if (size_t at = name.find_first_of(kNotInNames); at != std::string::npos)
        return Quoted(name) + " holds '" + name[at] + "'; " + kAllowedInNames;
    if (name.front() == '.' || name.back() == '.' || name.front() == ' ' || name.back() == ' ')
        return Quoted(name) + " begins or ends with a dot or a space";
    if (ReservedOnWindows(name)) return Quoted(name) + " is the name of a device on Windows";
    return {};
}

void ReadWorld(const json& value, World& world) {
    Keys(value, "world", {"extent", "resolution", "verticalScale"});
    if (const json* extent = Member(value, "extent")) {
        std::vector<double> e = Numbers(*extent, "world.extent", 4, "[x0, y0, x1, y1]");
        // Devices work in floats: the extent must be one there too, with
        // a size above zero.
        for (size_t i = 0; i < 4; ++i)
            if (!std::isfinite(static_cast<float>(e[i])))
                Fail(At("world.extent", i), Number(e[i]) + " is beyond the range of a float");
        for (size_t i = 0; i < 2; ++i) {
            const float low = static_cast<float>(e[i]), high = static_cast<float>(e[i + 2]);
            if (!(high > low) || !std::isfinite(high - low))
                Fail("world.extent", std::string(i == 0 ? "x1 " : "y1 ") + Number(e[i + 2]) +
                                         " must be above " + (i == 0 ? "x0 " : "y0 ") +
                                         Number(e[i]) + " by a finite size");
            // Samples per unit stay a float at any resolution (2^30 / 1e-29).
            if (e[i + 2] - e[i] < 1e-29)
                Fail("world.extent", std::string(i == 0 ? "the width " : "the height ") +
                                         Number(e[i + 2] - e[i]) + " is below 1e-29");
        }
        world.x0 = e[0];
        world.y0 = e[1];
        world.x1 = e[2];
        world.y1 = e[3];
    }
    if (const json* resolution = Member(value, "resolution")) {
        if (!resolution->is_array() || resolution->size() != 2)
            Fail("world.resolution", "expected [W, H]");
        int64_t size[2];
        for (size_t i = 0; i < 2; ++i) {
            std::string place = At("world.resolution", i);
            size[i] = Integer((*resolution)[i], place);
            if (size[i] < 1 || size[i] > std::numeric_limits<int32_t>::max())
                Fail(place, std::to_string(size[i]) + " is not a positive size");
        }
        if (static_cast<uint64_t>(size[0]) * static_cast<uint64_t>(size[1]) > kMaxImageSamples)
            Fail("world.resolution", std::to_string(size[0]) + " x " + std::to_string(size[1]) +
                                         " is more than 2^30 samples, the most a file holds");
        world.width = static_cast<int32_t>(size[0]);
        world.height = static_cast<int32_t>(size[1]);
    }
    if (const json* scale = Member(value, "verticalScale")) {
        world.verticalScale = FiniteNumber(*scale, "world.verticalScale");
        if (world.verticalScale <= 0)
            Fail("world.verticalScale", Number(world.verticalScale) + " is not positive");
    }
}

// The extent of the first File Input's GeoTIFF that has one, for a world
// whose file gives none; returns that device's id. A file that cannot be read
// is left for its build to report.
std::string AdoptGeoExtent(Network& network) {
    if (!CanUseTiff()) return {};
    for (const std::string& id : network.Ids()) {
        const FileInput* input = AsFileInput(&network.Get(id));
        if (!input) continue;
        std::string extension = input->File().extension().string();
        for (char& c : extension)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (extension != ".tif" && extension != ".tiff") continue;
        try {
            if (std::optional<GeoExtent> extent = ReadGeoExtent(input->File())) {
                network.world.x0 = extent->x0;
                network.world.y0 = extent->y0;
                network.world.x1 = extent->x1;
                network.world.y1 = extent->y1;
                return id;
            }
        } catch (const std::exception&) {
        }
    }
    return {};
}

void ReadGlobals(const json& value, Orogen::GlobalSettings& globals) {
    Keys(value, "globals", {"waterLevel", "lightDirection"});
    if (const json* water = Member(value, "waterLevel"))
        globals.waterLevel = static_cast<float>(FiniteNumber(*water, "globals.waterLevel"));
    if (const json* light = Member(value, "lightDirection")) {
        std::vector<double> d = Numbers(*light, "globals.lightDirection", 3, "[x, y, z]");
        for (size_t i = 0; i < 3; ++i) globals.lightDirection[i] = static_cast<float>(d[i]);
    }
}

// A Value's "value" and "typeCode"; other devices take neither.
void ReadValue(Orogen::Device& device, const json& value, const std::string& place) {
    ValueInput* input = AsValueInput(&device);
    const json* number = Member(value, "value");
    const json* code = Member(value, "typeCode");
    if (!input) {
        if (number || code)
            Fail(place + (number ? ".value" : ".typeCode"), "only a \"Value\" device takes one");
        return;
    }
    if (!number) {
        if (!Member(value, "state")) Fail(place, "a \"Value\" needs \"value\"");
        if (code) Fail(place + ".typeCode", "give \"value\" with it");
        return;
    }
    const double given = FiniteNumber(*number, place + ".value");
    const float cast = static_cast<float>(given);
    if (!std::isfinite(cast)) Fail(place + ".value", Number(given) + " is too large");
    // Whole numbers are integers unless told otherwise.
    uint32_t typeCode = cast == std::floor(cast) ? 0 : 1;
    if (code) {
        int64_t wanted = Integer(*code, place + ".typeCode");
        if (wanted < 0 || wanted > ValueInput::kMaxTypeCode)
            Fail(place + ".typeCode", std::to_string(wanted) + " is outside 0.." +
                                          std::to_string(ValueInput::kMaxTypeCode));
        typeCode = static_cast<uint32_t>(wanted);
    }
    input->Set(cast, typeCode);
}

// A parameter to set on one device, and where it was asked for.
struct Setting {
    std::string name;
    const json* value;
    std::string place;
};

// Sets each parameter; one out of range is tried again once the others are
// confirmed: its range may follow one of them (a router's "Output Choice"
// ranges over "Number of Outputs").
// A later setting of the same parameter (an override) replaces an earlier one.
void ApplySettings(Network& network, Orogen::Device& device, const std::vector<Setting>& settings) {
    std::vector<const Setting*> again;
    for (size_t i = 0; i < settings.size(); ++i) {
        const Setting& setting = settings[i];
        if (std::any_of(settings.begin() + static_cast<std::ptrdiff_t>(i) + 1, settings.end(),
                        [&](const Setting& later) { return later.name == setting.name; }))
            continue;
        try {
            SetParameter(device, setting.name, *setting.value);
        } catch (const std::invalid_argument&) {
            again.push_back(&setting);
        }
    }
    // Confirmed as a user confirms the settings dialog, so that devices
    // whose ports follow their settings (Voronoi's distortion input, the
    // routers' port counts) rebuild them before the links are read.
    network.GetHost().Dialogs().Script(1);
    device.EditSettings();
    if (again.empty()) return;
    for (const Setting* setting : again) {
        try {
            SetParameter(device, setting->name, *setting->value);
        } catch (const std::invalid_argument& e) {
            Fail(setting->place, e.what());
        }
    }
    network.GetHost().Dialogs().Script(1);
    device.EditSettings();
}

// A seeded device left to its own seed takes one of the network's seed and
// its id instead.
void SeedDevice(Network& network, Orogen::Device& device, const std::string& id) {
    int32_t index = Orogen::FindParameter(device.params, "Random Seed");
    if (index < 0) return;
    Orogen::ParamRecord& record = device.params.records[static_cast<size_t>(index)];
    if (record.kind != Orogen::kParamInteger || record.maximum.i < record.minimum.i) return;
    const uint64_t span = static_cast<uint64_t>(int64_t{record.maximum.i} - record.minimum.i) + 1;
    const auto drawn = static_cast<uint64_t>(network.GetHost().Seeds().SeedFor(id));
    record.value.i = static_cast<int32_t>(record.minimum.i + static_cast<int64_t>(drawn % span));
}

// A saved state's values meet the rules "params" follow: a NaN height, a
// choice past its labels or a radius of 2^31 - 1 is refused before anything
// acts on it. Ranges that follow other settings are read after the load has
// set them.
void CheckStateValues(const Orogen::Device& device, const std::string& place) {
    if (!std::isfinite(device.anchor[0]) || !std::isfinite(device.anchor[1]))
        Fail(place, "the anchor (" + Number(device.anchor[0], 7) + ", " +
                        Number(device.anchor[1], 7) + ") is not finite");
    for (const Orogen::ParamRecord& record : device.params.records) {
        std::string problem;
        switch (record.kind) {
            case Orogen::kParamReal: {
                const float v = record.value.f;
                if (!(v >= record.minimum.f && v <= record.maximum.f))
                    problem = Number(v, 7) + " is outside " + Number(record.minimum.f, 7) + ".." +
                              Number(record.maximum.f, 7);
                break;
            }
            case Orogen::kParamInteger:
            case Orogen::kParamChoice:
                if (record.value.i < record.minimum.i || record.value.i > record.maximum.i)
                    problem = std::to_string(record.value.i) + " is outside " +
                              std::to_string(record.minimum.i) + ".." +
                              std::to_string(record.maximum.i);
                break;
            case Orogen::kParamBoolean:
                if (record.value.i != 0 && record.value.i != 1)
                    problem = std::to_string(record.value.i) + " is neither 0 nor 1";
                break;
            default:
                break;
        }
        if (!problem.empty()) Fail(place, "parameter " + Quoted(record.name) + ": " + problem);
    }
}

void ReadDevice(Network& network, const json& value, const std::string& place,
                const fs::path& folder, const std::vector<Setting>& overrides) {
    Keys(value, place,
         {"id", "type", "name", "params", "anchor", "enabled", "bypassed", "state", "file", "kind",
          "value", "typeCode", "actions"});
    const json* idValue = Member(value, "id");
    if (!idValue) Fail(place, "missing \"id\"");
    std::string id = String(*idValue, place + ".id");
    if (std::string problem = FileNameProblem(id, kMaxIdLength); !problem.empty())
        Fail(place + ".id", problem);
    const json* typeValue = Member(value, "type");
    if (!typeValue) Fail(place, "missing \"type\"");
    std::string typeName = String(*typeValue, place + ".type");
    const DeviceType* type = network.GetHost().FindType(typeName);
    if (!type)
        Fail(place + ".type", "unknown device type " + Quoted(typeName) +
                                  "; nearest: " + NearestTypes(network.GetHost(), typeName));

    // A saved state brings the seed fetch of its own load.
    Orogen::Device& device = network.AddDevice(id, *type, !Member(value, "state"));
    FileInput* fileInput = AsFileInput(&device);

    if (const json* state = Member(value, "state")) {
        std::optional<std::string> bytes = DecodeBase64(String(*state, place + ".state"));
        if (!bytes) Fail(place + ".state", "not valid base64");
        std::istringstream in(*bytes, std::ios::binary);
        bool loaded = false;
        try {
            loaded = device.Load(in);
        } catch (const std::exception& e) {
            Fail(place + ".state", std::string("loading failed: ") + e.what());
        }
        if (!loaded)
            Fail(place + ".state",
                 "the saved state does not load into a " + Quoted(type->typeName) + " device");
        CheckStateValues(device, place + ".state");
        // A File Input's state holds its path relative to the project.
        if (fileInput && fileInput->File().is_relative() && !fileInput->File().empty() &&
            !folder.empty())
            fileInput->SetFile((folder / fileInput->File()).lexically_normal());
    }
    if (const json* name = Member(value, "name")) {
        std::string text = String(*name, place + ".name");
        if (text.size() > 23) Fail(place + ".name", "longer than 23 characters");
        if (size_t at = ControlCharacter(text); at != std::string::npos)
            Fail(place + ".name",
                 "holds " + ControlName(text[at]) + "; a name takes no control characters");
        device.SetName(text.c_str());
    }
    if (const json* anchor = Member(value, "anchor")) {
        std::vector<double> a = Numbers(*anchor, place + ".anchor", 2, "[x, y]");
        device.anchor[0] = static_cast<float>(a[0]);
        device.anchor[1] = static_cast<float>(a[1]);
    }
    if (const json* enabled = Member(value, "enabled"))
        device.enabled = Boolean(*enabled, place + ".enabled") ? 1 : 0;
    if (const json* bypassed = Member(value, "bypassed"))
        device.bypassed = Boolean(*bypassed, place + ".bypassed") ? 1 : 0;

    const json* file = Member(value, "file");
    const json* kind = Member(value, "kind");
    if (!fileInput && (file || kind))
        Fail(place + (file ? ".file" : ".kind"), "only a \"File Input\" device takes one");
    if (fileInput) {
        if (file) {
            fs::path path = fs::path(String(*file, place + ".file"));
            if (path.empty()) Fail(place + ".file", "the file name is empty");
            if (path.is_relative() && !folder.empty()) path = folder / path;
            fileInput->SetFile(path.lexically_normal());
        } else if (!Member(value, "state")) {
            Fail(place, "a \"File Input\" needs \"file\"");
        }
        if (kind) {
            std::string text = String(*kind, place + ".kind");
            if (text == "heightfield")
                fileInput->SetKind(FileInput::Kind::HeightField);
            else if (text == "bitmap")
                fileInput->SetKind(FileInput::Kind::Bitmap);
            else
                Fail(place + ".kind",
                     "unknown kind " + Quoted(text) + "; valid: \"heightfield\", \"bitmap\"");
        }
    }

    ReadValue(device, value, place);

    std::vector<Setting> settings;
    if (const json* params = Member(value, "params")) {
        if (!params->is_object()) Fail(place + ".params", "expected an object");
        for (const auto& [name, setting] : params->items())
            settings.push_back({name, &setting, place + ".params." + Shortened(name)});
    }
    settings.insert(settings.end(), overrides.begin(), overrides.end());
    const bool ownSeed = Member(value, "state") ||
                         std::any_of(settings.begin(), settings.end(),
                                     [](const Setting& s) { return s.name == "Random Seed"; });
    if (network.seed && !ownSeed) SeedDevice(network, device, id);
    if (Member(value, "params") || !settings.empty()) ApplySettings(network, device, settings);
}

// A port by its number, or by its name where that names exactly one.
template <typename PortType>
uint32_t PortIndex(const json& value, const std::string& place, const std::string& id,
                   const std::vector<PortType*>& ports, const char* what) {
    if (!value.is_string()) return Index(value, place);
    const std::string wanted = value.get<std::string>();
    std::vector<std::string> names;
    std::vector<uint32_t> found;
    for (size_t i = 0; i < ports.size(); ++i) {
        names.emplace_back(ports[i]->name);
        if (names.back() == wanted) found.push_back(static_cast<uint32_t>(i));
    }
    if (found.size() == 1) return found[0];
    if (found.empty())
        Fail(place, Quoted(id) + " has no " + what + " " + Quoted(wanted) +
                        NearestAndValid(names, wanted));
    Fail(place, Quoted(id) + " has " + std::to_string(found.size()) + " " + what + "s named " +
                    Quoted(wanted) + "; give its number");
}

void ReadLink(Network& network, const json& value, const std::string& place,
              std::unordered_map<const Orogen::Port*, std::string>& linkedBy) {
    Keys(value, place, {"from", "output", "to", "input", "param"});
    const json* fromValue = Member(value, "from");
    const json* toValue = Member(value, "to");
    if (!fromValue) Fail(place, "missing \"from\"");
    if (!toValue) Fail(place, "missing \"to\"");
    std::string from = String(*fromValue, place + ".from");
    std::string to = String(*toValue, place + ".to");
    Orogen::Device* source = network.Find(from);
    if (!source) Fail(place + ".from", "no device " + Quoted(from));
    Orogen::Device* target = network.Find(to);
    if (!target) Fail(place + ".to", "no device " + Quoted(to));

    uint32_t output = 0;
    if (const json* o = Member(value, "output"))
        output = PortIndex(*o, place + ".output", from, source->outputs, "output");
    if (output >= source->outputs.size())
        Fail(place + ".output", Quoted(from) + " has no output " + std::to_string(output) +
                                    " (it has " + std::to_string(source->outputs.size()) + ")");

    const json* inputValue = Member(value, "input");
    const json* paramValue = Member(value, "param");
    if (inputValue && paramValue) Fail(place, "give either \"input\" or \"param\", not both");

    Orogen::Port* port;
    std::string portPlace;
    std::string param;
    uint32_t input = 0;
    if (paramValue) {
        portPlace = place + ".param";
        param = String(*paramValue, portPlace);
        int32_t index = Orogen::FindParameter(target->params, param.c_str());
        if (index < 0 || static_cast<size_t>(index) >= target->paramPorts.size())
            Fail(portPlace, Quoted(to) + " has no parameter " + Quoted(param) +
                                NearestAndValid(ParameterNames(*target), param));
        port = target->paramPorts[static_cast<size_t>(index)];
    } else {
        portPlace = place + ".input";
        if (inputValue) input = PortIndex(*inputValue, portPlace, to, target->inputs, "input");
        if (input >= target->inputs.size())
            Fail(portPlace, Quoted(to) + " has no input " + std::to_string(input) + " (it has " +
                                std::to_string(target->inputs.size()) + ")");
        port = target->inputs[input];
    }
    auto [earlier, fresh] = linkedBy.emplace(port, place);
    if (!fresh) Fail(portPlace, "this port is linked already by " + earlier->second);

    try {
        if (paramValue)
            network.ConnectParameter(from, output, to, param);
        else
            network.Connect(from, output, to, input);
    } catch (const NetworkError& e) {
        Fail(place, e.what());
    }
}

// A device's "actions", in order, once every link is made: what they do to
// links is then saved as links, and a saved project lists no actions.
void RunActions(Network& network, const json& device, const std::string& place) {
    const json* actions = Member(device, "actions");
    if (!actions) return;
    if (!actions->is_array()) Fail(place + ".actions", "expected an array of action labels");
    const std::string id = device["id"].get<std::string>();
    for (size_t i = 0; i < actions->size(); ++i) {
        const std::string at = At(place + ".actions", i);
        const std::string label = String((*actions)[i], at);
        bool done;
        try {
            done = network.RunAction(id, label);
        } catch (const NetworkError& e) {
            Fail(at, e.what());
        }
        if (!done) Fail(at, "the action " + Quoted(label) + " of " + Quoted(id) + " failed");
    }
}

std::vector<ExportEntry> ReadExports(const Network& network, const json& value) {
    if (!value.is_array()) Fail("export", "expected an array");
    std::vector<ExportEntry> exports;
    std::unordered_map<std::string, std::string> names;
    for (size_t i = 0; i < value.size(); ++i) {
        std::string place = At("export", i);
        const json& item = value[i];
        Keys(item, place, {"device", "output", "name"});
        const json* deviceValue = Member(item, "device");
        if (!deviceValue) Fail(place, "missing \"device\"");
        ExportEntry entry;
        entry.device = String(*deviceValue, place + ".device");
        Orogen::Device* device = network.Find(entry.device);
        if (!device) Fail(place + ".device", "no device " + Quoted(entry.device));
        if (const json* o = Member(item, "output"))
            entry.output =
                PortIndex(*o, place + ".output", entry.device, device->outputs, "output");
        if (entry.output >= device->outputs.size())
            Fail(place + ".output", Quoted(entry.device) + " has no output " +
                                        std::to_string(entry.output) + " (it has " +
                                        std::to_string(device->outputs.size()) + ")");
        if (const json* name = Member(item, "name")) {
            entry.name = String(*name, place + ".name");
            if (std::string problem = FileNameProblem(entry.name, kMaxExportNameLength);
                !problem.empty())
                Fail(place + ".name", problem);
        } else {
            entry.name = device->outputs.size() > 1
                             ? entry.device + "_" + std::to_string(entry.output)
                             : entry.device;
        }
        auto [earlier, fresh] = names.emplace(entry.name, place);
        if (!fresh)
            Fail(place + ".name",
                 "the name " + Quoted(entry.name) + " is used already by " + earlier->second);
        exports.push_back(entry);
    }
    return exports;
}

size_t ByteToLine(std::string_view text, size_t byte, size_t& column) {
    size_t line = 1;
    size_t lineStart = 0;
    byte = std::min(byte, text.size());
    for (size_t i = 0; i + 1 < byte; ++i)
        if (text[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    column = byte > lineStart ? byte - lineStart : 1;
    return line;
}

// Deeper than any network file needs; what walks a value recursively stays
// far from the end of the stack.
constexpr size_t kMaxNesting = 64;

[[noreturn]] void FailAtByte(std::string_view text, size_t byte, const std::string& message) {
    size_t column;
    size_t line = ByteToLine(text, byte + 1, column);
    Fail("line " + std::to_string(line) + ", column " + std::to_string(column), message);
}

// What the parser would take too far, found before it runs: nesting deeper
// than kMaxNesting and numbers beyond a double, which it reports without a
// place.
void CheckJsonShape(std::string_view text) {
    size_t depth = 0;
    bool inString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxNesting)
                FailAtByte(text, i,
                           "values nested deeper than " + std::to_string(kMaxNesting) + " levels");
        } else if (c == ']' || c == '}') {
            if (depth > 0) --depth;
        } else if (c == '-' || (c >= '0' && c <= '9')) {
            size_t end = i;
            while (end < text.size() && std::strchr("0123456789+-.eE", text[end]) && text[end])
                ++end;
            const std::string token(text.substr(i, end - i));
            // No locale is set: strtod reads a point as the decimal separator.
            if (std::isinf(std::strtod(token.c_str(), nullptr)))
                FailAtByte(text, i, Shortened(token) + " is too large for a number");
            i = end - 1;
        }
    }
}

}  // namespace

bool IsViewDevice(Orogen::Device& device) {
    return device.GetCategory() == kOutputCategory && !device.outputs.empty();
}

void AddViewExports(const Network& network, std::vector<ExportEntry>& exports) {
    std::set<std::string> names;
    for (const ExportEntry& entry : exports) names.insert(entry.name);
    for (const std::string& id : network.Ids()) {
        if (!IsViewDevice(network.Get(id))) continue;
        const bool listed = std::any_of(exports.begin(), exports.end(), [&](const ExportEntry& e) {
            return e.device == id && e.output == 0;
        });
        if (listed) continue;
        ExportEntry entry;
        entry.device = id;
        entry.name = network.Get(id).outputs.size() > 1 ? id + "_0" : id;
        for (int k = 2; names.count(entry.name); ++k)
            entry.name = id + "_view" + (k > 2 ? std::to_string(k) : "");
        names.insert(entry.name);
        exports.push_back(entry);
    }
}

std::vector<ExportEntry> DefaultExports(const Network& network) {
    std::vector<ExportEntry> exports;
    for (const std::string& id : network.Ids()) {
        Orogen::Device& device = network.Get(id);
        for (size_t k = 0; k < device.outputs.size(); ++k) {
            // A view is a result even where it feeds another device.
            if (!device.outputs[k]->links.empty() && !(k == 0 && IsViewDevice(device))) continue;
            ExportEntry entry;
            entry.device = id;
            entry.output = static_cast<uint32_t>(k);
            entry.name = device.outputs.size() > 1 ? id + "_" + std::to_string(k) : id;
            exports.push_back(entry);
        }
    }
    return exports;
}

namespace {

// Each override's device (the longest id that "ID.PARAM" starts with) and
// parameter.
std::map<std::string, std::vector<Setting>> ResolveOverrides(const json& root,
                                                             const ParseOptions& options) {
    std::vector<std::string> ids;
    if (const json* devices = Member(root, "devices"); devices && devices->is_array())
        for (const json& item : *devices)
            if (item.is_object() && item.contains("id") && item["id"].is_string())
                ids.push_back(item["id"].get<std::string>());
    std::map<std::string, std::vector<Setting>> byDevice;
    for (const ParseOptions::Override& o : options.overrides) {
        const std::string* best = nullptr;
        for (const std::string& id : ids)
            if (o.target.size() > id.size() + 1 && o.target.compare(0, id.size(), id) == 0 &&
                o.target[id.size()] == '.' && (!best || id.size() > best->size()))
                best = &id;
        if (!best) {
            size_t dot = o.target.rfind('.');
            if (dot == std::string::npos || dot == 0 || dot + 1 == o.target.size())
                Fail(o.place, "expected ID.PARAM=VALUE");
            Fail(o.place, "no device " + Quoted(o.target.substr(0, dot)));
        }
        byDevice[*best].push_back({o.target.substr(best->size() + 1), &o.value, o.place});
    }
    return byDevice;
}

}  // namespace

Project ParseNetwork(Host& host, std::string_view text, const fs::path& folder,
                     const ParseOptions& options) {
    CheckJsonShape(text);
    json root;
    try {
        root = json::parse(text.begin(), text.end());
    } catch (const json::parse_error& e) {
        size_t column;
        size_t line = ByteToLine(text, e.byte, column);
        std::string reason = e.what();
        size_t at = reason.find("column ");
        at = at == std::string::npos ? std::string::npos : reason.find(": ", at);
        if (at != std::string::npos) reason = reason.substr(at + 2);
        Fail("line " + std::to_string(line) + ", column " + std::to_string(column),
             "malformed JSON: " + Shortened(reason, 200));
    } catch (const json::exception& e) {
        Fail("(top)", std::string("malformed JSON: ") + Shortened(e.what(), 200));
    }
    if (!root.is_object()) Fail("(top)", "expected a JSON object");
    Keys(root, "", {"world", "globals", "seed", "devices", "links", "export"});

    // Everything is built aside and handed over whole; the seed service is
    // put back as it was when anything fails.
    SeedSource::State seeds = host.Seeds().Save();
    try {
        Project project;
        project.network = std::make_unique<Network>(host);
        Network& network = *project.network;
        if (const json* world = Member(root, "world")) ReadWorld(*world, network.world);
        if (const json* globals = Member(root, "globals")) ReadGlobals(*globals, network.globals);
        if (const json* seed = Member(root, "seed")) {
            int64_t start = Integer(*seed, "seed");
            if (start < 0 || start > std::numeric_limits<uint32_t>::max())
                Fail("seed", std::to_string(start) + " is outside 0..4294967295");
            network.seed = static_cast<uint32_t>(start);
        }
        if (options.seed) network.seed = options.seed;
        if (network.seed) host.Seeds().SetStart(*network.seed);
        const std::map<std::string, std::vector<Setting>> overrides =
            ResolveOverrides(root, options);
        const std::vector<Setting> none;
        if (const json* devices = Member(root, "devices")) {
            if (!devices->is_array()) Fail("devices", "expected an array");
            std::unordered_map<std::string, std::string> ids;
            for (size_t i = 0; i < devices->size(); ++i) {
                std::string place = At("devices", i);
                const json& item = (*devices)[i];
                if (item.is_object() && item.contains("id") && item["id"].is_string()) {
                    auto [earlier, fresh] = ids.emplace(item["id"].get<std::string>(), place);
                    if (!fresh)
                        Fail(place + ".id", "duplicate id " + Quoted(earlier->first) +
                                                " (first at " + earlier->second + ")");
                }
                auto own = item.is_object() && item.contains("id") && item["id"].is_string()
                               ? overrides.find(item["id"].get<std::string>())
                               : overrides.end();
                ReadDevice(network, item, place, folder,
                           own == overrides.end() ? none : own->second);
            }
        }
        const json* world = Member(root, "world");
        if (!world || !Member(*world, "extent")) project.extentFrom = AdoptGeoExtent(network);
        if (const json* links = Member(root, "links")) {
            if (!links->is_array()) Fail("links", "expected an array");
            std::unordered_map<const Orogen::Port*, std::string> linkedBy;
            for (size_t i = 0; i < links->size(); ++i)
                ReadLink(network, (*links)[i], At("links", i), linkedBy);
        }
        if (const json* devices = Member(root, "devices"))
            for (size_t i = 0; i < devices->size(); ++i)
                RunActions(network, (*devices)[i], At("devices", i));
        if (const json* exports = Member(root, "export")) {
            project.exports = ReadExports(network, *exports);
            AddViewExports(network, project.exports);
            project.exportsListed = true;
        } else {
            project.exports = DefaultExports(network);
        }
        return project;
    } catch (...) {
        host.Seeds().Restore(seeds);
        throw;
    }
}

Project LoadNetworkFile(Host& host, const fs::path& path, const ParseOptions& options) {
    std::ifstream in(path, std::ios::binary);
    if (!in) Fail(path.string(), "cannot open the file");
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) Fail(path.string(), "cannot read the file");
    return ParseNetwork(host, text.str(), fs::absolute(path).parent_path(), options);
}

// Saving

std::string NetworkToText(const Project& project, const fs::path& folder) {
    const Network& network = *project.network;
    ordered_json root;
    const World& world = network.world;
    root["world"] = {{"extent", {world.x0, world.y0, world.x1, world.y1}},
                     {"resolution", {world.width, world.height}},
                     {"verticalScale", world.verticalScale}};
    const Orogen::GlobalSettings& globals = network.globals;
    root["globals"] = {
        {"waterLevel", globals.waterLevel},
        {"lightDirection",
         {globals.lightDirection[0], globals.lightDirection[1], globals.lightDirection[2]}}};
    if (network.seed) root["seed"] = *network.seed;

    ordered_json devices = ordered_json::array();
    for (const std::string& id : network.Ids()) {
        Orogen::Device& device = network.Get(id);
        ordered_json item;
        item["id"] = id;
        item["type"] = network.TypeOf(id).typeName;
        if (device.name[0]) item["name"] = std::string(device.name);
        FileInput* fileInput = AsFileInput(&device);
        const fs::path original = fileInput ? fileInput->File() : fs::path();
        if (fileInput) {
            fs::path file = original;
            if (!folder.empty() && file.is_absolute()) {
                fs::path relative = file.lexically_relative(folder);
                if (!relative.empty()) file = relative;
            }
            item["file"] = file.generic_string();
            item["kind"] =
                fileInput->GetKind() == FileInput::Kind::Bitmap ? "bitmap" : "heightfield";
            // The state too holds the path relative to the project, so that
            // a project moved whole still finds its files.
            fileInput->SetFile(file);
        }
        if (ValueInput* input = AsValueInput(&device)) {
            item["value"] = input->Value();
            item["typeCode"] = input->TypeCode();
        }
        std::ostringstream state(std::ios::binary);
        const bool saved = device.Save(state);
        if (fileInput) fileInput->SetFile(original);
        if (!saved) throw std::runtime_error("device " + Quoted(id) + " could not save its state");
        item["state"] = EncodeBase64(state.str());
        devices.push_back(std::move(item));
    }
    root["devices"] = std::move(devices);

    ordered_json links = ordered_json::array();
    for (const Link& link : network.Links()) {
        ordered_json item;
        item["from"] = link.from;
        item["output"] = link.output;
        item["to"] = link.to;
        if (link.target == LinkTarget::Parameter)
            item["param"] = link.parameter;
        else
            item["input"] = link.input;
        links.push_back(std::move(item));
    }
    root["links"] = std::move(links);

    if (project.exportsListed) {
        ordered_json exports = ordered_json::array();
        for (const ExportEntry& entry : project.exports)
            exports.push_back(
                {{"device", entry.device}, {"output", entry.output}, {"name", entry.name}});
        root["export"] = std::move(exports);
    }
    return root.dump(2) + "\n";
}

void SaveNetworkFile(const Project& project, const fs::path& path) {
    WriteTextFile(path, NetworkToText(project, fs::absolute(path).parent_path()));
}

}  // namespace basekit::host
