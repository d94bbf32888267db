// The one place that knows which operating system the framework runs on.
#pragma once

#include <cstdint>

namespace Orogen {

// A recursive lock: Win32 critical sections on Windows, the standard library
// elsewhere. Not copyable; it lives where it is constructed.
class CriticalSection {
public:
    CriticalSection();
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;

    void Enter();
    void Leave();

private:
    // Large enough for a CRITICAL_SECTION (40 bytes) or a std::recursive_mutex.
    alignas(8) unsigned char storage[64];
};

// Holds a critical section for the lifetime of a scope.
class CriticalSectionGuard {
public:
    explicit CriticalSectionGuard(CriticalSection& section) : section(section) { section.Enter(); }
    ~CriticalSectionGuard() { section.Leave(); }
    CriticalSectionGuard(const CriticalSectionGuard&) = delete;
    CriticalSectionGuard& operator=(const CriticalSectionGuard&) = delete;

private:
    CriticalSection& section;
};

// Suspends the calling thread for at least `milliseconds`.
void SleepMilliseconds(uint32_t milliseconds);

// Milliseconds since an arbitrary start, wrapping at 2^32 (time-based seeds).
uint32_t GetTickCount();

}  // namespace Orogen
