// The r32 reader: the first four bytes give the width, height and channels
// asked for (as a File Input asks), the rest is the file.
#include <stdexcept>

#include "FuzzSupport.h"
#include "host/ImageIO.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    const int32_t width = (data[0] | data[1] << 8) - 8;
    const int32_t height = data[2] - 8;
    const int channels = data[3] & 1 ? 3 : 1;
    try {
        basekit::host::ReadR32(basekit::fuzz::InputFile(data + 4, size - 4, ".r32"), width, height,
                               channels);
    } catch (const std::runtime_error&) {
    }
    return 0;
}
