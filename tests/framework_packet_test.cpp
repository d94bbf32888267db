#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <string>

#include "TestHost.h"

namespace {

using namespace basekit::testing;

using PacketTest = FrameworkTest;

TEST_F(PacketTest, ClampHeights) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    const struct {
        float in, out;
    } cases[] = {{nan, 1.0f}, {-0.5f, 0.0f}, {0.0f, 0.0f}, {1.0f, 1.0f}, {0.3f, 0.3f},
                 {1.5f, 1.0f}, {inf, 1.0f},  {-inf, 0.0f}, {-0.0f, -0.0f}};
    PacketRef field = NewHeightField(Grid{static_cast<int32_t>(std::size(cases)), 1});
    for (size_t i = 0; i < std::size(cases); ++i) field->samples[i] = cases[i].in;
    ClampHeights(field.get());
    for (size_t i = 0; i < std::size(cases); ++i)
        EXPECT_EQ(field->samples[i], cases[i].out) << "case " << i;
    ClampHeights(nullptr);
}

TEST_F(PacketTest, DestroyedCountIsNotReleasedAgain) {
    PacketRef a = NewHeightField(Grid{1, 1});
    QXPacket* raw = a.get();
    // A packet already marked destroyed: a release must not free it again.
    raw->refCount.store(kDestroyedCount);
    a.Release();
    EXPECT_EQ(LivePackets(), 1);
    raw->refCount.store(1);
    PacketRef again(raw);
    raw->refCount.store(1);
    again.Release();
    EXPECT_EQ(LivePackets(), 0);
}

TEST_F(PacketTest, PageInReadsAndRemovesTheSwapFile) {
    PacketRef field = NewHeightField(Grid{3, 1});
    field->samples[2] = 0.3f;
    ASSERT_TRUE(basekit::host::AsHostPacket(field.get())->PageOut(SwapFolder()));
    const std::string name = field->swapFileName;
    EXPECT_TRUE(std::ifstream(SwapFolder() + name).good());
    EXPECT_FALSE(SetPagingHint(*field, false));
    EXPECT_EQ(field->pagedOut, 0);
    EXPECT_EQ(field->samples[2], 0.3f);
    EXPECT_FALSE(std::ifstream(SwapFolder() + name).good());
}

TEST_F(PacketTest, FailedPageInStaysPagedOutAndReports) {
    PacketRef field = NewHeightField(Grid{3, 1});
    std::snprintf(field->swapFileName, sizeof field->swapFileName, "%s", "missing.swp");
    field->pagedOut = 1;
    std::string path;
    EXPECT_EQ(ThrownMessage<FileAccessException>([&] {
                  try {
                      field->PageIn();
                  } catch (const FileAccessException& e) {
                      path = e.path;
                      throw;
                  }
              }),
              "The filename specified could not be accessed.");
    EXPECT_EQ(path, SwapFolder() + "missing.swp");
    EXPECT_EQ(field->pagedOut, 1);
    EXPECT_EQ(field->samples, nullptr);
    ASSERT_EQ(host.Network().LogLines().size(), 1u);
    EXPECT_EQ(host.Network().LogLines()[0],
              "QXPacket::PageIn()   caught QXException "
              "The filename specified could not be accessed.");
}

TEST_F(PacketTest, VisitorChecksItsPackets) {
    EXPECT_EQ(ThrownMessage([] { PacketVisitor visitor(nullptr); }),
              "Instantiated with empty packet");
    PacketRef a = NewHeightField(Grid{4, 3});
    PacketRef b = NewHeightField(Grid{4, 3});
    PacketRef c = NewHeightField(Grid{3, 4});
    PacketVisitor visitor(a.get());
    EXPECT_EQ(visitor.Add(b.get()), 1);
    EXPECT_EQ(visitor.Add(nullptr), 2);
    EXPECT_EQ(ThrownMessage([&] { visitor.Add(c.get()); }),
              "Size of packets don't match in PacketVisitor");
    EXPECT_EQ(visitor.Row(2, 0), nullptr);
    EXPECT_EQ(visitor.Row(1, 2), b->samples + 8);
}

TEST_F(PacketTest, VisitorCoversEveryRow) {
    host.Workers().Resize(2);
    PacketRef field = NewHeightField(Grid{5, 97});
    PacketVisitor visitor(field.get());
    bool ok = visitor.Visit(&recorder, nullptr, [&](int32_t first, int32_t last) {
        for (int32_t y = first; y <= last; ++y) {
            float* row = visitor.Row(0, y);
            for (int32_t x = 0; x < 5; ++x) row[x] += static_cast<float>(y);
        }
        return true;
    });
    ASSERT_TRUE(ok);
    for (int32_t y = 0; y < 97; ++y) EXPECT_EQ(field->samples[y * 5 + 4], static_cast<float>(y));
}

}  // namespace
