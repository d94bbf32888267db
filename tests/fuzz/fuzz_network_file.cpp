// The network-file loader: any text gives a project or a NetworkFileError,
// never a crash, a hang or a leak.
#include <string_view>

#include "FuzzSupport.h"
#include "host/NetworkFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    basekit::host::Host& host = basekit::fuzz::SharedHost();
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        basekit::host::Project project = basekit::host::ParseNetwork(host, text, "");
        // What loads also saves.
        basekit::host::NetworkToText(project, "");
    } catch (const basekit::host::NetworkFileError&) {
    }
    return 0;
}
