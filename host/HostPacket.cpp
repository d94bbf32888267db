#include "host/HostPacket.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

#include "framework/Exceptions.h"

#ifdef _WIN32
#include <process.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace basekit::host {

namespace {

std::atomic<uint64_t> g_live{0};
std::atomic<uint64_t> g_residentBytes{0};
std::atomic<uint64_t> g_peakBytes{0};
std::atomic<uint64_t> g_swapSerial{0};

// Swap file layout, little-endian: magic, format version, kind, width,
// height, floats per point, data length in bytes, checksum of the data, data.
constexpr char kSwapMagic[4] = {'B', 'K', 'S', 'W'};
constexpr uint32_t kSwapVersion = 1;
constexpr size_t kSwapHeaderSize = 40;

void PutU32(unsigned char* at, uint32_t v) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(v >> (8 * i));
}
void PutU64(unsigned char* at, uint64_t v) {
    for (int i = 0; i < 8; ++i) at[i] = static_cast<unsigned char>(v >> (8 * i));
}
uint32_t GetU32(const unsigned char* at) {
    uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | at[i];
    return v;
}
uint64_t GetU64(const unsigned char* at) {
    uint64_t v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | at[i];
    return v;
}

// FNV-1a taken over 64-bit words (then the tail bytes): fast enough for
// gigabytes, and any changed byte changes it.
uint64_t Checksum(const unsigned char* data, uint64_t size) {
    uint64_t hash = 0xCBF29CE484222325ull;
    const uint64_t prime = 0x100000001B3ull;
    uint64_t i = 0;
    for (; i + 8 <= size; i += 8) {
        uint64_t word;
        std::memcpy(&word, data + i, 8);
        hash = (hash ^ word) * prime;
    }
    for (; i < size; ++i) hash = (hash ^ data[i]) * prime;
    return hash;
}

void AddResident(uint64_t bytes) {
    uint64_t now = g_residentBytes.fetch_add(bytes) + bytes;
    uint64_t peak = g_peakBytes.load();
    while (now > peak && !g_peakBytes.compare_exchange_weak(peak, now)) {
    }
}

#ifndef _WIN32
// Fields this large are mapped on their own, on huge pages where the system
// lends them: one fault per 2 MiB instead of per 4 KiB, pages zeroed once.
constexpr uint64_t kMappedBytes = uint64_t{4} << 20;
#endif

// Zeroed floats, freed by FreeFloats with the same count.
float* AllocateFloats(uint64_t count) {
    if (count == 0) return nullptr;
    void* memory = nullptr;
#ifndef _WIN32
    if (count * sizeof(float) >= kMappedBytes) {
        void* mapped = mmap(nullptr, static_cast<size_t>(count * sizeof(float)),
                            PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (mapped != MAP_FAILED) {
#ifdef MADV_HUGEPAGE
            madvise(mapped, static_cast<size_t>(count * sizeof(float)), MADV_HUGEPAGE);
#endif
            memory = mapped;
        }
    } else
#endif
        memory = std::calloc(static_cast<size_t>(count), sizeof(float));
    if (!memory)
        throw Orogen::QXException(
            "Out of memory for a packet of " + std::to_string(count) + " samples (" +
            std::to_string(count * sizeof(float)) +
            " bytes); lower the resolution or give the build a memory budget (orogen --memory) "
            "to page stored fields to disk.");
    return static_cast<float*>(memory);
}

void FreeFloats(float* samples, uint64_t count) {
    if (!samples) return;
#ifndef _WIN32
    if (count * sizeof(float) >= kMappedBytes) {
        munmap(samples, static_cast<size_t>(count * sizeof(float)));
        return;
    }
#endif
    static_cast<void>(count);
    std::free(samples);
}

}  // namespace

int ProcessId() {
#ifdef _WIN32
    return _getpid();
#else
    return static_cast<int>(getpid());
#endif
}

uint32_t FloatsPerPoint(uint32_t kind) {
    switch (kind) {
        case Orogen::kBitmap:
            return 3;
        case Orogen::kCoordinateData:
        case Orogen::kParameterPacket:
            return 2;
        default:
            return 1;
    }
}

HostPacket::HostPacket(uint32_t kind) : kind(kind) {
    lock = &section;
    grid.width = 0;
    grid.height = 0;
    g_live.fetch_add(1);
}

HostPacket::~HostPacket() {
    RemoveSwapFile();
    FreeSamples();
    g_live.fetch_sub(1);
}

Orogen::PacketRef HostPacket::Create(uint32_t kind) {
    if (kind != Orogen::kParameterPacket && kind != Orogen::kHeightField &&
        kind != Orogen::kBitmap && kind != Orogen::kCoordinateData)
        return Orogen::PacketRef();
    Orogen::PacketRef ref(new HostPacket(kind));
    if (kind == Orogen::kParameterPacket) ref->AllocateSamples(Orogen::Grid{});
    return ref;
}

uint64_t HostPacket::SampleCount() const {
    if (kind == Orogen::kParameterPacket) return 2;
    return PointCount() * FloatsPerPoint(kind);
}

void HostPacket::FreeSamples() {
    if (!samples) return;
    FreeFloats(samples, heldCount);
    samples = nullptr;
    g_residentBytes.fetch_sub(heldCount * sizeof(float));
    heldCount = 0;
}

void HostPacket::RemoveSwapFile() {
    if (!pagedOut || swapFolder.empty()) return;
    std::remove((swapFolder + swapFileName).c_str());
}

void HostPacket::AllocateSamples(const Orogen::Grid& size) {
    Orogen::Grid wanted = size;
    if (kind == Orogen::kParameterPacket) {
        wanted.width = 1;
        wanted.height = 1;
    }
    if (wanted.width < 0 || wanted.height < 0)
        throw Orogen::QXException("A packet cannot have a negative size (" +
                                  std::to_string(wanted.width) + " x " +
                                  std::to_string(wanted.height) + ").");
    uint64_t points = static_cast<uint64_t>(wanted.width) * static_cast<uint64_t>(wanted.height);
    if (points > kMaxPacketPoints)
        throw Orogen::QXException("A packet of " + std::to_string(wanted.width) + " x " +
                                  std::to_string(wanted.height) +
                                  " points is larger than the limit of 2^31 points.");
    uint64_t count = kind == Orogen::kParameterPacket ? 2 : points * FloatsPerPoint(kind);
    float* fresh = AllocateFloats(count);
    RemoveSwapFile();
    pagedOut = 0;
    FreeSamples();
    grid = wanted;
    samples = fresh;
    heldCount = count;
    AddResident(count * sizeof(float));
}

Orogen::PacketRef& HostPacket::Duplicate(Orogen::PacketRef& out) {
    if (pagedOut) PageIn();
    Orogen::PacketRef copy(new HostPacket(kind));
    copy->AllocateSamples(grid);
    if (samples && copy->samples)
        std::memcpy(copy->samples, samples, static_cast<size_t>(SampleBytes()));
    std::memcpy(copy->name, name, sizeof name);
    copy->maskFlag = maskFlag;
    out = std::move(copy);
    return out;
}

bool HostPacket::ReadFromStream(std::istream& in) {
    unsigned char header[kSwapHeaderSize];
    in.read(reinterpret_cast<char*>(header), sizeof header);
    if (static_cast<size_t>(in.gcount()) != sizeof header) return false;
    uint64_t length = SampleBytes();
    if (std::memcmp(header, kSwapMagic, 4) != 0 || GetU32(header + 4) != kSwapVersion ||
        GetU32(header + 8) != kind || static_cast<int32_t>(GetU32(header + 12)) != grid.width ||
        static_cast<int32_t>(GetU32(header + 16)) != grid.height ||
        GetU32(header + 20) != FloatsPerPoint(kind) || GetU64(header + 24) != length)
        return false;
    float* fresh = AllocateFloats(length / sizeof(float));
    in.read(reinterpret_cast<char*>(fresh), static_cast<std::streamsize>(length));
    bool ok =
        static_cast<uint64_t>(in.gcount()) == length &&
        Checksum(reinterpret_cast<const unsigned char*>(fresh), length) == GetU64(header + 32) &&
        in.peek() == std::char_traits<char>::eof();
    if (!ok) {
        FreeFloats(fresh, length / sizeof(float));
        return false;
    }
    FreeSamples();
    samples = fresh;
    heldCount = length / sizeof(float);
    AddResident(length);
    return true;
}

bool HostPacket::PageOut(const std::string& folder) {
    Orogen::CriticalSectionGuard guard(section);
    if (pagedOut || !samples) return false;
    char fileName[sizeof swapFileName];
    std::snprintf(fileName, sizeof fileName, "bk%d-%llu.swap", ProcessId(),
                  static_cast<unsigned long long>(g_swapSerial.fetch_add(1)));
    std::string path = folder + fileName;
    uint64_t length = SampleBytes();

    unsigned char header[kSwapHeaderSize];
    std::memcpy(header, kSwapMagic, 4);
    PutU32(header + 4, kSwapVersion);
    PutU32(header + 8, kind);
    PutU32(header + 12, static_cast<uint32_t>(grid.width));
    PutU32(header + 16, static_cast<uint32_t>(grid.height));
    PutU32(header + 20, FloatsPerPoint(kind));
    PutU64(header + 24, length);
    PutU64(header + 32, Checksum(reinterpret_cast<const unsigned char*>(samples), length));
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        if (out) {
            out.write(reinterpret_cast<const char*>(header), sizeof header);
            out.write(reinterpret_cast<const char*>(samples), static_cast<std::streamsize>(length));
            out.close();
        }
        if (!out) {
            std::remove(path.c_str());
            throw std::runtime_error("cannot write the swap file " + path);
        }
    }
    std::memcpy(swapFileName, fileName, sizeof swapFileName);
    swapFolder = folder;
    FreeSamples();
    pagedOut = 1;
    return true;
}

void HostPacket::ReleasePacket() {
    delete this;
}

void HostPacket::DiscardContents() {
    FreeSamples();
}

bool HostPacket::AllowPagedOut(bool wanted) {
    return wanted;
}

uint64_t HostPacket::Live() {
    return g_live.load();
}

uint64_t HostPacket::ResidentBytes() {
    return g_residentBytes.load();
}

uint64_t HostPacket::PeakResidentBytes() {
    return g_peakBytes.load();
}

void HostPacket::ResetPeak() {
    g_peakBytes.store(g_residentBytes.load());
}

HostPacket* AsHostPacket(Orogen::QXPacket* packet) {
    return dynamic_cast<HostPacket*>(packet);
}

}  // namespace basekit::host
