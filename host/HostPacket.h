// The host's packets: height fields, bitmaps, parameter values and coordinate
// data, with paging of their samples to swap files.
#pragma once

#include <cstdint>
#include <filesystem>
#include <istream>

#include "framework/Packet.h"
#include "framework/Platform.h"

namespace basekit::host {

// The most grid points a packet may hold (a side may be up to 2^31 - 1).
inline constexpr uint64_t kMaxPacketPoints = uint64_t{1} << 31;

// Floats per grid point: 1 for height fields, 3 for bitmaps, 2 for
// coordinate data (world x, y). A parameter packet is one point holding two
// floats: the value, then its type code.
uint32_t FloatsPerPoint(uint32_t kind);

// This process's id, for the names of swap files and of the tool's folders.
int ProcessId();

class HostPacket final : public Orogen::QXPacket {
  public:
    // A new, empty packet of `kind` (1, 4, 8 or 32); null for any other kind.
    // A parameter packet is born as a 1x1 grid holding 0.
    static Orogen::PacketRef Create(uint32_t kind);

    Orogen::PacketRef& Duplicate(Orogen::PacketRef& out) override;
    bool ReadFromStream(std::istream& in) override;
    void ReleasePacket() override;
    void DiscardContents() override;
    bool AllowPagedOut(bool wanted) override;
    // Throws Orogen::QXException for a negative side or more than
    // kMaxPacketPoints points, before allocating anything.
    void AllocateSamples(const Orogen::Grid& grid) override;
    uint32_t GetKind() const override { return kind; }

    // Floats held while resident.
    uint64_t SampleCount() const;
    uint64_t SampleBytes() const { return SampleCount() * sizeof(float); }

    // Writes the samples to a new swap file in `folder` (which must end with
    // a separator, as the swap directory text does) and frees them. False when
    // there is nothing to page out. Throws std::runtime_error when the file
    // cannot be written; the packet then stays resident and no file is left.
    bool PageOut(const std::string& folder);

    // Packets alive, and bytes of resident samples, over all host packets.
    static uint64_t Live();
    static uint64_t ResidentBytes();
    // The most resident bytes since the last ResetPeak (which starts it at
    // the bytes resident then).
    static uint64_t PeakResidentBytes();
    static void ResetPeak();

  private:
    explicit HostPacket(uint32_t kind);
    ~HostPacket();
    void FreeSamples();
    void RemoveSwapFile();

    uint32_t kind;
    Orogen::CriticalSection section;
    // Where the swap file was written, while paged out.
    std::string swapFolder;
    // Floats allocated for `samples`, whatever the grid says since.
    uint64_t heldCount = 0;
};

// The packet as the host's own, or null for a packet of another maker.
HostPacket* AsHostPacket(Orogen::QXPacket* packet);

}  // namespace basekit::host
