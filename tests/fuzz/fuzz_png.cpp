// The PNG reader: any bytes give an image or a runtime_error naming the
// file, never a crash or an allocation past the readers' limit.
#include <stdexcept>

#include "FuzzSupport.h"
#include "host/ImageIO.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        basekit::host::ReadPng(basekit::fuzz::InputFile(data, size, ".png"));
    } catch (const std::runtime_error&) {
    }
    return 0;
}
