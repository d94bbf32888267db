// Packets are the host's objects; the module reaches them through these
// virtual operations and data members, whose order hosts rely on.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <vector>

#include "framework/HostServices.h"
#include "framework/Platform.h"

namespace Orogen {

class QXPacket;

// A counted reference to a packet: a single pointer.
class PacketRef {
public:
    PacketRef() = default;
    explicit PacketRef(QXPacket* packet);
    PacketRef(const PacketRef& other);
    PacketRef(PacketRef&& other) noexcept : packet(other.packet) { other.packet = nullptr; }
    ~PacketRef() { Release(); }
    PacketRef& operator=(const PacketRef& other);
    PacketRef& operator=(PacketRef&& other) noexcept;

    // Drops the reference; the packet goes when the last one does.
    void Release();

    QXPacket* get() const { return packet; }
    QXPacket* operator->() const { return packet; }
    QXPacket& operator*() const { return *packet; }
    explicit operator bool() const { return packet != nullptr; }

private:
    QXPacket* packet = nullptr;
};

// The count a destroyed packet carries, so that a late release does nothing.
constexpr uint32_t kDestroyedCount = 0xFFFFFFC0u;

class QXPacket {
public:
    // `out` now holds a new packet that copies this one.
    virtual PacketRef& Duplicate(PacketRef& out) = 0;
    // Reads the samples back from a swap file; true on success.
    virtual bool ReadFromStream(std::istream& in) = 0;
    // Destroys the packet; called when its count reaches zero.
    virtual void ReleasePacket() = 0;
    // Called on a packet whose page-in failed.
    virtual void DiscardContents() = 0;
    // Paging hint given at every store and retrieval; returns what was granted.
    virtual bool AllowPagedOut(bool wanted) = 0;
    // Copies the size record and allocates width * height samples of the kind.
    virtual void AllocateSamples(const Grid& grid) = 0;
    // The packet's kind (PacketKind).
    virtual uint32_t GetKind() const = 0;

    // Brings the samples back from the swap file; see Packet.cpp.
    void PageIn();

    // Floats per grid point: 3 for bitmaps (red, green, blue), 2 for
    // coordinate data (x, y), 1 for height fields. A parameter packet is a
    // 1x1 grid: samples[0] is its value.
    int Channels() const {
        uint32_t kind = GetKind();
        return kind == kBitmap ? 3 : kind == kCoordinateData ? 2 : 1;
    }
    // Grid points, as a 64-bit product; 0 when either side is 0 or negative.
    uint64_t PointCount() const;

    char name[32] = {};
    int32_t maskFlag = 0;
    CriticalSection* lock = nullptr;
    uint8_t pagedOut = 0;
    uint8_t stayPagedOut = 0;
    char swapFileName[64] = {};
    std::atomic<uint32_t> refCount{0};
    Grid grid;
    float* samples = nullptr;

protected:
    QXPacket() = default;
    ~QXPacket() = default;
};

// Copies at most 31 characters of `text` into the packet's name.
void SetPacketName(QXPacket& packet, const char* text);

// A parameter packet carries a value and a type code, the parameter kind the
// value stands for (0 and 4 integers, 1 real, 2 true/false): samples[0] and
// samples[1], both as floats, so that a value folds into any parameter alike.
float PacketValue(const QXPacket& packet);
uint32_t PacketTypeCode(const QXPacket& packet);
void SetPacketValue(QXPacket& packet, float value, uint32_t typeCode);

// New packets from the host's factory, sized by a grid record.
PacketRef NewPacket(uint32_t kind, const Grid& grid);
inline PacketRef NewHeightField(const Grid& grid) { return NewPacket(kHeightField, grid); }
inline PacketRef NewBitmap(const Grid& grid) { return NewPacket(kBitmap, grid); }

// NaN becomes 1, values below 0 become 0 and values above 1 become 1.
void ClampHeights(QXPacket* field);
void ClampHeights(float* samples, uint64_t count);

// stayPagedOut := what the packet grants for `stayOut`; pages in when it may
// not stay out. Returns stayPagedOut.
bool SetPagingHint(QXPacket& packet, bool stayOut);

// Rows of several height fields of one size, visited together and spread over
// the host's workers. Packets added as null read as the constant value.
class PacketVisitor {
public:
    explicit PacketVisitor(QXPacket* first);

    // Adds a packet; returns its position in the list (the first is 0).
    int32_t Add(QXPacket* packet);

    // Samples of packet `index` at row `y`, or null for a packet added as null.
    float* Row(int32_t index, int32_t y) const;
    int32_t Width() const { return width; }
    int32_t Height() const { return height; }

    // Calls `rows(firstRow, lastRow)` (inclusive) over all rows through
    // RunRows; `progressContext` is the visiting device. False when a call
    // answered false, an item failed or the build was cancelled.
    bool Visit(BuildProgress* progress, void* progressContext,
               const std::function<bool(int32_t, int32_t)>& rows);

    // Value of a packet added as null.
    float constantValue = 0.0f;

private:
    std::vector<QXPacket*> packets;
    int32_t width = 0;
    int32_t height = 0;
};

// The standard per-visit callable: rows first..last inclusive, false stops.
using StandardDeviceCallback = std::function<bool(int32_t, int32_t)>;

}  // namespace Orogen
