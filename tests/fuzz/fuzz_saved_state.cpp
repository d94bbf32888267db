// The saved-state reader of every device type: the first byte picks the
// type, the rest is the state. A state loads or is refused; a loaded one
// saves again.
#include <sstream>
#include <string>

#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    basekit::host::Host& host = basekit::fuzz::SharedHost();
    if (size < 1 || host.Types().empty()) return 0;
    const basekit::host::DeviceType& type = host.Types()[data[0] % host.Types().size()];
    basekit::host::DeviceHandle device(type);
    std::istringstream in(std::string(reinterpret_cast<const char*>(data) + 1, size - 1),
                          std::ios::binary);
    try {
        if (!device->Load(in)) return 0;
    } catch (const std::exception&) {
        return 0;
    }
    std::ostringstream out(std::ios::binary);
    device->Save(out);
    return 0;
}
