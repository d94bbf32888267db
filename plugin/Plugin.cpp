// The module's three entry points.
#include <cstring>

#include "framework/Device.h"
#include "plugin/Catalogue.h"

#if defined(_WIN32)
#define BASEKIT64_EXPORT extern "C" __declspec(dllexport)
#else
#define BASEKIT64_EXPORT extern "C" __attribute__((visibility("default")))
#endif

using namespace Orogen;

BASEKIT64_EXPORT int32_t GetHeaderVersion() { return kHeaderVersion; }

BASEKIT64_EXPORT void SetupGlobalAccess(HostServices* services) { SetServices(services); }

BASEKIT64_EXPORT bool GetDevPlugin(int32_t index, DeviceDescriptor* descriptor) {
    if (!descriptor) return false;
    if (static_cast<uint32_t>(index) >= static_cast<uint32_t>(basekit::kCatalogueSize))
        return false;
    const basekit::CatalogueEntry& entry = basekit::kCatalogue[index];
    if (!entry.create) return false;

    DeviceDescriptor scratch;
    std::memset(&scratch, 0, sizeof scratch);
    scratch.dataTypes = 4;

    // A temporary device, only to read its identity and type name.
    Device* device = entry.create();
    if (!device) return false;
    std::memcpy(&scratch.identity, &device->identity, sizeof scratch.identity);
    std::strncpy(scratch.typeName, device->GetTypeName(), sizeof scratch.typeName - 1);
    scratch.category = entry.category;
    scratch.dataTypes = entry.dataTypes;
    scratch.flag = entry.flag;
    delete device;

    std::memcpy(descriptor, &scratch, sizeof scratch);
    return true;
}
