#include "framework/Packet.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include "framework/Exceptions.h"
#include "framework/Rows.h"

namespace Orogen {

PacketRef::PacketRef(QXPacket* packet) : packet(packet) {
    if (packet) packet->refCount.fetch_add(1);
}

PacketRef::PacketRef(const PacketRef& other) : packet(other.packet) {
    if (packet) packet->refCount.fetch_add(1);
}

PacketRef& PacketRef::operator=(const PacketRef& other) {
    // Take the new reference before dropping the old: they may be the same packet.
    QXPacket* incoming = other.packet;
    if (incoming) incoming->refCount.fetch_add(1);
    Release();
    packet = incoming;
    return *this;
}

PacketRef& PacketRef::operator=(PacketRef&& other) noexcept {
    if (this != &other) {
        Release();
        packet = other.packet;
        other.packet = nullptr;
    }
    return *this;
}

void PacketRef::Release() {
    QXPacket* old = packet;
    packet = nullptr;
    if (!old || old->refCount.load() == kDestroyedCount) return;
    if (old->refCount.fetch_sub(1) == 1) {
        old->refCount.store(kDestroyedCount);
        old->ReleasePacket();
    }
}

uint64_t QXPacket::PointCount() const {
    if (grid.width <= 0 || grid.height <= 0) return 0;
    return static_cast<uint64_t>(grid.width) * static_cast<uint64_t>(grid.height);
}

void QXPacket::PageIn() {
    CriticalSectionGuard guard(*lock);
    std::string path = std::string(Services()->network->GetSwapDirectory()) + swapFileName;
    try {
        std::ifstream in(path, std::ios::binary);
        if (!in || !ReadFromStream(in)) throw FileAccessException(path);
        in.close();
        std::remove(path.c_str());
        pagedOut = 0;
    } catch (const QXException& e) {
        char message[512];
        std::snprintf(message, sizeof message, "QXPacket::PageIn()   caught QXException %s",
                      e.what());
        Services()->network->LogMessage(message);
        DiscardContents();
        throw;
    }
}

void SetPacketName(QXPacket& packet, const char* text) {
    std::strncpy(packet.name, text ? text : "", sizeof packet.name - 1);
    packet.name[sizeof packet.name - 1] = '\0';
}

float PacketValue(const QXPacket& packet) {
    return packet.samples ? packet.samples[0] : 0.0f;
}

uint32_t PacketTypeCode(const QXPacket& packet) {
    // A code that is no whole number in range reads as none of the known ones.
    const float code = packet.samples ? packet.samples[1] : 0.0f;
    if (!(code >= 0.0f && code < 4294967296.0f) ||
        code != static_cast<float>(static_cast<int64_t>(code)))
        return 0xFFFFFFFFu;
    return static_cast<uint32_t>(code);
}

void SetPacketValue(QXPacket& packet, float value, uint32_t typeCode) {
    if (!packet.samples) return;
    packet.samples[0] = value;
    packet.samples[1] = static_cast<float>(typeCode);
}

PacketRef NewPacket(uint32_t kind, const Grid& grid) {
    PacketRef packet;
    Services()->network->CreatePacket(packet, kind);
    if (!packet) throw QXException("The host could not create a packet.");
    packet->AllocateSamples(grid);
    return packet;
}

void ClampHeights(float* samples, uint64_t count) {
    for (uint64_t i = 0; i < count; ++i) {
        float v = samples[i];
        if (std::isnan(v))
            samples[i] = 1.0f;
        else if (v < 0.0f)
            samples[i] = 0.0f;
        else if (v > 1.0f)
            samples[i] = 1.0f;
    }
}

void ClampHeights(QXPacket* field) {
    if (!field || !field->samples) return;
    ClampHeights(field->samples, field->PointCount() * field->Channels());
}

bool SetPagingHint(QXPacket& packet, bool stayOut) {
    packet.stayPagedOut = packet.AllowPagedOut(stayOut) ? stayOut : false;
    if (!packet.stayPagedOut && packet.pagedOut) packet.PageIn();
    return packet.stayPagedOut;
}

PacketVisitor::PacketVisitor(QXPacket* first) {
    if (!first) throw QXException("Instantiated with empty packet");
    packets.push_back(first);
    width = first->grid.width;
    height = first->grid.height;
}

int32_t PacketVisitor::Add(QXPacket* packet) {
    if (packet && (packet->grid.width != width || packet->grid.height != height))
        throw QXException("Size of packets don't match in PacketVisitor");
    packets.push_back(packet);
    return static_cast<int32_t>(packets.size() - 1);
}

float* PacketVisitor::Row(int32_t index, int32_t y) const {
    QXPacket* packet = packets[static_cast<size_t>(index)];
    if (!packet || !packet->samples) return nullptr;
    return packet->samples + static_cast<uint64_t>(y) * static_cast<uint64_t>(width) *
                                 static_cast<uint64_t>(packet->Channels());
}

bool PacketVisitor::Visit(BuildProgress* progress, void* progressContext,
                          const std::function<bool(int32_t, int32_t)>& rows) {
    if (width <= 0 || height <= 0) return true;
    BuildContext context;
    context.progress = progress;
    // The context reported with is the visiting device.
    return RunRows(context, static_cast<Device*>(progressContext), 0, height - 1, rows);
}

}  // namespace Orogen
