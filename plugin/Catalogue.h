#pragma once

#include <cstdint>

#include "framework/Device.h"

namespace basekit {

// One row of the catalogue; a null factory marks a class not written yet.
struct CatalogueEntry {
    DeviceFactory create;
    int32_t category;
    int32_t dataTypes;
    uint8_t flag;
};

constexpr int32_t kCatalogueSize = 35;

extern const CatalogueEntry kCatalogue[kCatalogueSize];

}  // namespace basekit
