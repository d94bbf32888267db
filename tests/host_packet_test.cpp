// Host packets: kinds and sizes, refusal of absurd sizes, copies, lifetimes
// and paging to swap files.
#include <functional>

#include "framework/Exceptions.h"
#include "host_test_support.h"

namespace basekit::host::testing {
namespace {

Orogen::Grid GridOf(int32_t width, int32_t height) {
    Orogen::Grid grid;
    grid.width = width;
    grid.height = height;
    grid.x0 = -2.0, grid.y0 = 1.0, grid.x1 = 6.0, grid.y1 = 3.5, grid.verticalScale = 250.0;
    return grid;
}

// Samples of every bit pattern class, NaN and -0 included.
void FillPattern(Orogen::QXPacket& packet, uint32_t seed) {
    std::mt19937 random(seed);
    for (uint64_t i = 0; i < AsHostPacket(&packet)->SampleCount(); ++i) {
        const uint32_t bits = static_cast<uint32_t>(random());
        std::memcpy(&packet.samples[i], &bits, 4);
    }
}

TEST(HostPacket, KindsSizesAndTheGridRecord) {
    struct Case {
        uint32_t kind;
        int32_t width, height;
        uint64_t samples;
    };
    const Case cases[] = {
        {Orogen::kHeightField, 5, 3, 15},    {Orogen::kBitmap, 5, 3, 45},
        {Orogen::kCoordinateData, 5, 3, 30}, {Orogen::kParameterPacket, 5, 3, 2},
        {Orogen::kHeightField, 0, 7, 0},     {Orogen::kBitmap, 9, 0, 0},
    };
    Host host;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.kind * 1000 + c.width);
        Orogen::PacketRef packet = HostPacket::Create(c.kind);
        ASSERT_TRUE(packet);
        packet->AllocateSamples(GridOf(c.width, c.height));
        HostPacket* host = AsHostPacket(packet.get());
        EXPECT_EQ(host->SampleCount(), c.samples);
        EXPECT_EQ(SamplesOf(packet), std::vector<float>(c.samples, 0.0f));
        EXPECT_EQ(packet->grid.x0, -2.0);
        EXPECT_EQ(packet->grid.y1, 3.5);
        EXPECT_EQ(packet->grid.verticalScale, 250.0);
        EXPECT_NE(packet->lock, nullptr);
        if (c.kind == Orogen::kParameterPacket) {
            EXPECT_EQ(packet->grid.width, 1);
            EXPECT_EQ(packet->grid.height, 1);
        } else {
            EXPECT_EQ(packet->grid.width, c.width);
        }
        // Empty packets clamp and copy without touching memory.
        Orogen::ClampHeights(packet.get());
        Orogen::PacketRef copy;
        packet->Duplicate(copy);
        EXPECT_EQ(SamplesOf(copy), SamplesOf(packet));
    }
    EXPECT_FALSE(HostPacket::Create(2));
    EXPECT_FALSE(HostPacket::Create(16));
    // A parameter packet is born holding a value.
    Orogen::PacketRef value = HostPacket::Create(Orogen::kParameterPacket);
    ASSERT_NE(value->samples, nullptr);
    EXPECT_EQ(value->samples[0], 0.0f);
}

TEST(HostPacket, AbsurdSizesAreRefusedBeforeAnyAllocation) {
    struct Case {
        int32_t width, height;
        const char* message;
    };
    const Case cases[] = {
        {-1, 5, "A packet cannot have a negative size (-1 x 5)."},
        {5, -3, "A packet cannot have a negative size (5 x -3)."},
        {65536, 32769, "A packet of 65536 x 32769 points is larger than the limit of 2^31 points."},
        {2147483647, 2147483647,
         "A packet of 2147483647 x 2147483647 points is larger than the limit of 2^31 points."},
    };
    Host host;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        Orogen::PacketRef packet = HostPacket::Create(Orogen::kBitmap);
        packet->AllocateSamples(GridOf(2, 2));
        packet->samples[5] = 0.5f;
        uint64_t resident = HostPacket::ResidentBytes();
        try {
            packet->AllocateSamples(GridOf(c.width, c.height));
            ADD_FAILURE() << "accepted";
        } catch (const Orogen::QXException& e) {
            EXPECT_STREQ(e.what(), c.message);
        }
        // The packet keeps what it had.
        EXPECT_EQ(HostPacket::ResidentBytes(), resident);
        EXPECT_EQ(packet->grid.width, 2);
        EXPECT_EQ(packet->samples[5], 0.5f);
    }
}

TEST(HostPacket, CopiesAreIndependentAndPacketsGoWithTheirLastReference) {
    Host host;
    uint64_t live = HostPacket::Live();
    {
        Orogen::PacketRef original = Orogen::NewHeightField(GridOf(4, 4));
        Orogen::SetPacketName(*original, "a very long packet name that is cut at 31");
        original->maskFlag = 1;
        FillPattern(*original, 1);
        std::vector<float> before = SamplesOf(original);

        Orogen::PacketRef copy;
        original->Duplicate(copy);
        EXPECT_EQ(HostPacket::Live(), live + 2);
        EXPECT_TRUE(SameBits(SamplesOf(copy), before));
        EXPECT_STREQ(copy->name, "a very long packet name that is");
        EXPECT_EQ(copy->maskFlag, 1);
        EXPECT_EQ(copy->grid.x1, 6.0);
        copy->samples[0] = 42.0f;
        EXPECT_TRUE(SameBits(SamplesOf(original), before));

        Orogen::PacketRef shared = original;
        EXPECT_EQ(original->refCount.load(), 2u);
        shared = shared;  // self-assignment keeps it
        original.Release();
        EXPECT_EQ(HostPacket::Live(), live + 2);  // `shared` still holds it
        shared.Release();
        EXPECT_EQ(HostPacket::Live(), live + 1);
    }
    EXPECT_EQ(HostPacket::Live(), live);
}

TEST(HostPacket, PagingRoundTripIsBitIdentical) {
    const uint32_t kinds[] = {Orogen::kHeightField, Orogen::kBitmap, Orogen::kCoordinateData,
                              Orogen::kParameterPacket};
    Host host;
    const std::string folder = host.Network().GetSwapDirectory();
    for (uint32_t kind : kinds) {
        SCOPED_TRACE(kind);
        Orogen::PacketRef packet = HostPacket::Create(kind);
        packet->AllocateSamples(GridOf(31, 7));
        FillPattern(*packet, kind);
        std::vector<float> before = SamplesOf(packet);
        HostPacket* paged = AsHostPacket(packet.get());
        uint64_t resident = HostPacket::ResidentBytes();

        ASSERT_TRUE(paged->PageOut(folder));
        EXPECT_EQ(packet->pagedOut, 1);
        EXPECT_EQ(packet->samples, nullptr);
        EXPECT_EQ(HostPacket::ResidentBytes(), resident - paged->SampleBytes());
        fs::path file = fs::path(folder) / packet->swapFileName;
        EXPECT_TRUE(fs::exists(file));
        EXPECT_FALSE(paged->PageOut(folder));  // out already

        // A copy brings the packet back first; then it goes out and in again.
        Orogen::PacketRef copy;
        packet->Duplicate(copy);
        EXPECT_TRUE(SameBits(SamplesOf(copy), before));
        EXPECT_EQ(packet->pagedOut, 0);
        EXPECT_FALSE(fs::exists(file));
        copy.Release();
        ASSERT_TRUE(paged->PageOut(folder));
        file = fs::path(folder) / packet->swapFileName;
        packet->PageIn();
        EXPECT_EQ(packet->pagedOut, 0);
        EXPECT_TRUE(SameBits(SamplesOf(packet), before));
        EXPECT_FALSE(fs::exists(file));
        EXPECT_EQ(HostPacket::ResidentBytes(), resident);
    }
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST(HostPacket, DamagedSwapFilesFailAndThePacketStaysPagedOut) {
    auto flip = [](size_t at) {
        return [at](const fs::path& file) {
            std::string bytes = ReadBytes(file);
            bytes[at] = static_cast<char>(bytes[at] ^ 0x10);
            WriteBytes(file, bytes);
        };
    };
    struct Case {
        const char* name;
        std::function<void(const fs::path&)> damage;
    };
    const Case cases[] = {
        {"data byte", flip(40 + 17)},
        {"magic", flip(0)},
        {"kind", flip(8)},
        {"width", flip(12)},
        {"length", flip(24)},
        {"checksum", flip(33)},
        {"truncated",
         [](const fs::path& f) {
             std::string b = ReadBytes(f);
             WriteBytes(f, b.substr(0, b.size() - 1));
         }},
        {"extra byte", [](const fs::path& f) { WriteBytes(f, ReadBytes(f) + "x"); }},
        {"header only", [](const fs::path& f) { WriteBytes(f, ReadBytes(f).substr(0, 40)); }},
        {"missing", [](const fs::path& f) { fs::remove(f); }},
    };
    Host host;
    const std::string folder = host.Network().GetSwapDirectory();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        host.Network().ClearLog();
        Orogen::PacketRef packet = Orogen::NewHeightField(GridOf(16, 4));
        FillPattern(*packet, 9);
        ASSERT_TRUE(AsHostPacket(packet.get())->PageOut(folder));
        fs::path file = fs::path(folder) / packet->swapFileName;
        c.damage(file);

        try {
            packet->PageIn();
            ADD_FAILURE() << "paged in";
        } catch (const Orogen::FileAccessException& e) {
            EXPECT_EQ(e.path, file.string());
        }
        EXPECT_EQ(packet->pagedOut, 1);
        EXPECT_EQ(packet->samples, nullptr);
        std::vector<std::string> log = host.Network().LogLines();
        ASSERT_EQ(log.size(), 1u);
        EXPECT_EQ(log[0],
                  "QXPacket::PageIn()   caught QXException The filename specified could not be "
                  "accessed.");
        // A packet that cannot come back cannot be copied either.
        Orogen::PacketRef copy;
        EXPECT_THROW(packet->Duplicate(copy), Orogen::FileAccessException);
        packet.Release();
        EXPECT_FALSE(fs::exists(file));  // the packet takes its swap file with it
    }
    EXPECT_TRUE(fs::is_empty(folder));
}

TEST(HostPacket, AFailedPageOutLeavesThePacketResident) {
    Host host;
    TempDir dir;
    Orogen::PacketRef packet = Orogen::NewHeightField(GridOf(8, 8));
    FillPattern(*packet, 4);
    std::vector<float> before = SamplesOf(packet);
    std::string missing = (dir / "no-such-folder").string() + "/";
    EXPECT_THROW(AsHostPacket(packet.get())->PageOut(missing), std::runtime_error);
    EXPECT_EQ(packet->pagedOut, 0);
    EXPECT_TRUE(SameBits(SamplesOf(packet), before));
    EXPECT_TRUE(dir.List().empty());
}

}  // namespace
}  // namespace basekit::host::testing
