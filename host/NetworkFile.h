// Project files: a network, its world, globals and exports as JSON.
//
//   "world":   {"extent": [x0, y0, x1, y1], "resolution": [W, H], "verticalScale": v}
//   "globals": {"waterLevel": w, "lightDirection": [x, y, z]}
//   "seed":    the seed service's start, and where seeded devices without a
//              "Random Seed" of their own get theirs (see ParseOptions)
//   "devices": [{"id", "type" (display name or tag), "name", "params", "anchor",
//                "enabled", "bypassed", "state" (base64 of Save),
//                "file" and "kind" for a File Input,
//                "actions" (labels run in order once all links are made)}]
//   "links":   [{"from", "output", "to", "input"}] or {..., "to", "param"}
//   "export":  [{"device", "output", "name"}]
#pragma once

#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/Network.h"

namespace basekit::host {

// One line naming the place in the file, e.g.
// "devices[2].params.Radius: 80 is outside 0..64".
class NetworkFileError : public std::runtime_error {
  public:
    NetworkFileError(const std::string& place, const std::string& message);
    const std::string& Place() const { return place; }
    const std::string& Message() const { return message; }

  private:
    std::string place;
    std::string message;
};

struct ExportEntry {
    std::string device;
    uint32_t output = 0;
    std::string name;
};

struct Project {
    std::unique_ptr<Network> network;
    // As the file lists them, or else the outputs that feed nothing.
    std::vector<ExportEntry> exports;
    bool exportsListed = false;
    // The File Input whose GeoTIFF gave the world its extent, the file
    // giving none; empty otherwise.
    std::string extentFrom;
};

// What one reading changes of a file without editing it.
struct ParseOptions {
    // Replaces the file's "seed" (or gives one where it has none).
    std::optional<uint32_t> seed;
    // A parameter set as "params" sets it, after the file's own: `target` is
    // "ID.PARAM" (the longest device id that fits), `place` names it in
    // errors, e.g. "--set hill.Radius".
    struct Override {
        std::string target;
        nlohmann::json value;
        std::string place;
    };
    std::vector<Override> overrides;
};

// Reads a project; relative file paths are taken from the file's folder.
// With a seed (the file's or the options'), every device with an integer
// "Random Seed" that neither "params", an override nor a saved "state" sets
// gets SeedSource::SeedFor(id), folded into the parameter's range, so that a
// file and a seed give the same devices whatever their order.
// Throws NetworkFileError and changes nothing of the host on failure.
Project LoadNetworkFile(Host& host, const std::filesystem::path& path,
                        const ParseOptions& options = {});
Project ParseNetwork(Host& host, std::string_view text, const std::filesystem::path& folder,
                     const ParseOptions& options = {});

// Writes the project with every device's saved state; file paths are made
// relative to `folder` where they lie under it. The file is replaced whole or
// not at all (std::runtime_error).
std::string NetworkToText(const Project& project, const std::filesystem::path& folder);
void SaveNetworkFile(const Project& project, const std::filesystem::path& path);

// Every output that feeds nothing, and every output device's view (output 0
// of a device of category kOutputCategory) even where it feeds another:
// named after its device, with "_<index>" for devices of several outputs.
std::vector<ExportEntry> DefaultExports(const Network& network);

// Whether `device` is an output device (an Overlay View) with a view.
bool IsViewDevice(Orogen::Device& device);

// Appends the view of every output device that `exports` does not write
// yet, named after the device ("<id>_view" where that name is taken).
void AddViewExports(const Network& network, std::vector<ExportEntry>& exports);

// The category of output devices, whose output 0 is their view.
constexpr int32_t kOutputCategory = 2;

// Sets a parameter by name as "params" does: a number in range, true or
// false, a choice's label or index, an integer, or for a colour parameter
// (Orogen::IsColourParameter) also "#RRGGBB".
// Throws std::invalid_argument with the reason.
void SetParameter(Orogen::Device& device, const std::string& name, const nlohmann::json& value);

std::string EncodeBase64(std::string_view bytes);
// Null for text that is not padded standard base64.
std::optional<std::string> DecodeBase64(std::string_view text);

}  // namespace basekit::host
