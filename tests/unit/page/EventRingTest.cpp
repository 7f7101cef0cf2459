#include "companions/page/EventRing.h"

#include <gtest/gtest.h>

#include <string>

namespace kelto::page {
namespace {

constexpr uint64_t first = 1'000;

void AddMany(EventRing& ring, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        ring.Add("said", std::to_string(i));
    }
}

TEST(EventRingTest, AnEventIsFramedWithItsIdNameAndData) {
    EventRing ring(first);
    ring.Add("state", R"({"camera":true})");
    EXPECT_EQ(ring.LastId(), first);
    EXPECT_EQ(ring.Get(first), "id: 1000\nevent: state\ndata: {\"camera\":true}\n\n");
}

TEST(EventRingTest, IdsRiseByOne) {
    EventRing ring(first);
    EXPECT_EQ(ring.LastId(), first - 1);
    AddMany(ring, 3);
    EXPECT_EQ(ring.LastId(), first + 2);
    EXPECT_EQ(ring.Get(first + 1), "id: 1001\nevent: said\ndata: 1\n\n");
}

TEST(EventRingTest, TheLast1024EventsStay) {
    EventRing ring(first);
    AddMany(ring, 1'024);
    EXPECT_TRUE(ring.Reaches(first - 1));
    EXPECT_EQ(ring.Get(first), "id: 1000\nevent: said\ndata: 0\n\n");
    AddMany(ring, 1);
    EXPECT_FALSE(ring.Reaches(first - 1));
    EXPECT_TRUE(ring.Reaches(first));
    EXPECT_EQ(ring.Get(first + 1), "id: 1001\nevent: said\ndata: 1\n\n");
    EXPECT_EQ(ring.Get(first + 1'024), "id: 2024\nevent: said\ndata: 0\n\n");
}

TEST(EventRingTest, ItReachesNoIdThatWasNotGivenYet) {
    EventRing ring(first);
    EXPECT_TRUE(ring.Reaches(first - 1));
    EXPECT_FALSE(ring.Reaches(first));
    EXPECT_FALSE(ring.Reaches(0));
    AddMany(ring, 1);
    EXPECT_TRUE(ring.Reaches(first));
    EXPECT_FALSE(ring.Reaches(UINT64_MAX));
}

TEST(EventRingTest, ItCountsWhatCameBehindAnIdOfItsOwnOnly) {
    EventRing ring(first);
    AddMany(ring, 3'000);
    EXPECT_EQ(ring.CountBehind(first - 1), 3'000U);
    EXPECT_EQ(ring.CountBehind(first + 2'999), 0U);
    EXPECT_EQ(ring.CountBehind(first + 999), 2'000U);
    EXPECT_EQ(ring.CountBehind(first - 2), 0U);
    EXPECT_EQ(ring.CountBehind(first + 3'000), 0U);
    EXPECT_EQ(ring.CountBehind(UINT64_MAX), 0U);
}

}  // namespace
}  // namespace kelto::page
