#include "cli/Progress.h"

#include <algorithm>

namespace orogen {

void ProgressLine::DeviceStarted(const std::string& id, size_t at, size_t total) {
    if (!enabled) return;
    std::lock_guard<std::mutex> guard(lock);
    device = id;
    position = at;
    count = total;
    fraction = 0.0;
    Draw(true);
}

void ProgressLine::Fraction(const std::string& id, double value) {
    if (!enabled) return;
    std::lock_guard<std::mutex> guard(lock);
    if (id != device) return;
    fraction = std::clamp(value, 0.0, 1.0);
    Draw(false);
}

void ProgressLine::Finish() {
    if (!enabled) return;
    std::lock_guard<std::mutex> guard(lock);
    if (shown) {
        std::fputs("\r\033[K", stream);
        std::fflush(stream);
        shown = false;
    }
    device.clear();
}

void ProgressLine::Draw(bool force) {
    auto now = std::chrono::steady_clock::now();
    if (!force && now - lastDraw < std::chrono::milliseconds(50)) return;
    lastDraw = now;
    constexpr int kBar = 30;
    int filled = static_cast<int>(fraction * kBar + 0.5);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(kBar - filled), '.');
    std::string name = device.size() > 24 ? device.substr(0, 23) + "~" : device;
    std::fprintf(stream, "\r\033[K[%zu/%zu] %-24s [%s] %3d%%", position + 1, count, name.c_str(),
                 bar.c_str(), static_cast<int>(fraction * 100.0 + 0.5));
    std::fflush(stream);
    shown = true;
}

}  // namespace orogen
