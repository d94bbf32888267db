// The orogen commands.
#pragma once

#include <filesystem>
#include <string>

#include "cli/Tool.h"

namespace orogen {

// Prints the catalogue of `host`.
int RunDevices(basekit::host::Host& host, bool asJson);

// The network built into the tool, as examples/demo.json holds it.
std::string DemoNetworkText();

}  // namespace orogen
