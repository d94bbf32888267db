// The build's progress line on a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

namespace orogen {

// Draws "[k/n] device  [#####.....]  42%" on one line of `stream`, redrawn at
// most every 50 ms, device by device. Does nothing when not enabled.
// Callbacks may come from worker threads.
class ProgressLine {
public:
    ProgressLine(std::FILE* stream, bool enabled) : stream(stream), enabled(enabled) {}
    ~ProgressLine() { Finish(); }

    void DeviceStarted(const std::string& id, size_t position, size_t count);
    // A fraction of the current device's work, from rows, items or percent.
    void Fraction(const std::string& id, double fraction);
    // Clears the line; later calls draw nothing until the next device starts.
    void Finish();

    bool Enabled() const { return enabled; }

private:
    void Draw(bool force);

    std::FILE* stream;
    bool enabled;
    std::mutex lock;
    std::string device;
    size_t position = 0, count = 0;
    double fraction = 0.0;
    bool shown = false;
    std::chrono::steady_clock::time_point lastDraw{};
};

}  // namespace orogen
