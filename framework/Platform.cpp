#include "framework/Platform.h"

#ifdef _WIN32
#include <windows.h>
#else
#include <chrono>
#include <mutex>
#include <new>
#include <thread>
#endif

namespace Orogen {

#ifdef _WIN32

static_assert(sizeof(CRITICAL_SECTION) <= 64, "critical section storage too small");

static CRITICAL_SECTION* Native(unsigned char* storage) {
    return reinterpret_cast<CRITICAL_SECTION*>(storage);
}

CriticalSection::CriticalSection() { InitializeCriticalSection(Native(storage)); }
CriticalSection::~CriticalSection() { DeleteCriticalSection(Native(storage)); }
void CriticalSection::Enter() { EnterCriticalSection(Native(storage)); }
void CriticalSection::Leave() { LeaveCriticalSection(Native(storage)); }

void SleepMilliseconds(uint32_t milliseconds) { ::Sleep(milliseconds); }
uint32_t GetTickCount() { return static_cast<uint32_t>(::GetTickCount()); }

#else

static_assert(sizeof(std::recursive_mutex) <= 64, "critical section storage too small");

static std::recursive_mutex* Native(unsigned char* storage) {
    return std::launder(reinterpret_cast<std::recursive_mutex*>(storage));
}

CriticalSection::CriticalSection() { new (storage) std::recursive_mutex(); }
CriticalSection::~CriticalSection() { Native(storage)->~recursive_mutex(); }
void CriticalSection::Enter() { Native(storage)->lock(); }
void CriticalSection::Leave() { Native(storage)->unlock(); }

void SleepMilliseconds(uint32_t milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

uint32_t GetTickCount() {
    auto since = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint32_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

#endif

}  // namespace Orogen
