#include "companions/outbox/MemoryFile.h"
#include "companions/outbox/Queue.h"
#include "tests/support/MemoryMount.h"
#include "tests/support/TempDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <optional>

namespace kelto::halvek::outbox {
namespace {

using Fate = Queue::Fate;

class QueueTest : public testing::Test {
protected:
    QueueTest() {
        mkdir(ram.c_str(), 0700);
        mkdir(flash.c_str(), 0700);
    }

    void Open() {
        queue = std::make_unique<Queue>(ram, flash, settings);
        queue->Open();
    }

    /** As after a kill. */
    void OpenAgain() { Open(); }

    uint64_t Accept(size_t size, ItemHeader::Kind kind = ItemHeader::Kind::Picture) {
        ItemHeader header;
        header.kind = kind;
        Item& item = queue->Accept(header, MemoryFile::Of(std::string(size, 'x')).Get(), size);
        queue->Confirm(item);
        return item.file.id;
    }

    void KeepSafe(uint64_t id) {
        queue->KeepSafe(*queue->Find(id));
        queue->KeepNext();
    }

    std::vector<uint64_t> Ids() const {
        std::vector<uint64_t> ids;
        for (const auto& [id, item] : queue->All()) {
            ids.push_back(id);
        }
        return ids;
    }

    bool IsThere(const std::string& place, uint64_t id) const {
        return access((place + "/q/" + SpoolFolder::NameOf(id)).c_str(), F_OK) == 0;
    }

    test::TempDir folder;
    const std::string ram = folder.PathOf("ram");
    const std::string flash = folder.PathOf("flash");
    Settings settings;
    std::unique_ptr<Queue> queue;
};

TEST_F(QueueTest, WhatWasCountedIsGoneAfterAKillThatLeftItsFile) {
    Open();
    const uint64_t id = Accept(100);
    const std::string file = ram + "/q/" + SpoolFolder::NameOf(id);
    ASSERT_EQ(link(file.c_str(), folder.PathOf("copy").c_str()), 0);
    queue->Finish(id, Fate::Delivered);
    ASSERT_EQ(rename(folder.PathOf("copy").c_str(), file.c_str()), 0);
    OpenAgain();
    EXPECT_THAT(Ids(), testing::IsEmpty());
    EXPECT_FALSE(IsThere(ram, id));
    EXPECT_EQ(queue->GetCounts().delivered, 1U);
}

TEST_F(QueueTest, NoNumberIsUsedTwice) {
    Open();
    const uint64_t first = Accept(100);
    const uint64_t second = Accept(100);
    queue->Finish(second, Fate::Delivered);
    OpenAgain();
    EXPECT_EQ(Accept(100), second + 1);
    queue->Finish(second + 1, Fate::Delivered);
    queue->Finish(first, Fate::Delivered);
    OpenAgain();
    EXPECT_EQ(Accept(100), second + 2);
}

TEST_F(QueueTest, ANumberThatSomebodyMadeUpDoesNotStopTheCount) {
    Open();
    std::ofstream(flash + "/q/ffffffffffffffff") << "rubbish";
    OpenAgain();
    const uint64_t id = Accept(100);
    EXPECT_GT(id, 0U);
    EXPECT_LT(id, uint64_t{1} << 60U);
}

TEST_F(QueueTest, ADamagedItemIsCountedOnce) {
    Open();
    const uint64_t id = Accept(100);
    std::ofstream(ram + "/q/" + SpoolFolder::NameOf(id)) << "damaged";
    std::ofstream(ram + "/q/rubbish") << "was never an item";
    OpenAgain();
    EXPECT_EQ(queue->GetCounts().dropped, 1U);
    OpenAgain();
    EXPECT_EQ(queue->GetCounts().dropped, 1U);
}

TEST_F(QueueTest, AFileThatGrowsWhileItIsReadIsRefusedByEveryDurability) {
    settings.spoolLimit = 1000;
    for (const auto durability : {Settings::Durability::Late, Settings::Durability::Early, Settings::Durability::Ram}) {
        settings.durability = durability;
        Open();
        const companion::UniqueFd longer = MemoryFile::Of(std::string(2000, 'x'));
        EXPECT_THROW(queue->Accept({}, longer.Get(), 100), QueueFull);
        EXPECT_THAT(Ids(), testing::IsEmpty());
    }
}

TEST_F(QueueTest, FullRamCostsNothingOnFlash) {
    settings.ramLimit = 2500;
    settings.flashBudget = 1200;
    Open();
    const uint64_t onFlash = Accept(1000);
    KeepSafe(onFlash);
    ASSERT_TRUE(queue->Find(onFlash)->isOnFlash);
    const uint64_t oldest = Accept(1000);
    const uint64_t second = Accept(1000);
    const uint64_t third = Accept(1000);
    EXPECT_THAT(Ids(), testing::ElementsAre(onFlash, second, third)) << oldest;
    EXPECT_EQ(queue->GetCounts().dropped, 1U);
}

TEST_F(QueueTest, WhereSomebodyElseHasFilledTheRamAnItemGoesToFlash) {
    const test::MemoryMount disk(ram, "size=64k");
    Open();
    std::ofstream others(ram + "/others");
    others << std::string(100'000, 'x') << std::flush;
    const uint64_t id = Accept(1000);
    EXPECT_TRUE(queue->Find(id)->isOnFlash);
    EXPECT_TRUE(IsThere(flash, id));
}

TEST_F(QueueTest, WhatIsKeptFreeOnFlashStaysFree) {
    const test::MemoryMount disk(flash, "size=1m");
    Open();
    const uint64_t fits = Accept(800'000);
    KeepSafe(fits);
    EXPECT_TRUE(queue->Find(fits)->isOnFlash);
    // Below the floor of a tenth unless the older one goes.
    const uint64_t next = Accept(200'000);
    KeepSafe(next);
    EXPECT_THAT(Ids(), testing::ElementsAre(next));
    EXPECT_TRUE(queue->Find(next)->isOnFlash);
}

TEST_F(QueueTest, NothingGoesFromFlashForWhatDoesNotFitThereAnyway) {
    const test::MemoryMount disk(flash, "size=1m");
    Open();
    std::ofstream(flash + "/others") << std::string(500'000, 'x');
    const uint64_t old = Accept(100'000);
    KeepSafe(old);
    const uint64_t large = Accept(700'000);
    KeepSafe(large);
    EXPECT_THAT(Ids(), testing::ElementsAre(old, large));
    EXPECT_TRUE(queue->Find(old)->isOnFlash);
    EXPECT_FALSE(queue->Find(large)->isOnFlash);
    EXPECT_TRUE(IsThere(ram, large));
}

TEST_F(QueueTest, EarlyKeepsTheFloorTooAndTakesTheItemIntoRam) {
    const test::MemoryMount disk(flash, "size=1m");
    settings.durability = Settings::Durability::Early;
    Open();
    std::ofstream(flash + "/others") << std::string(900'000, 'x');
    const uint64_t id = Accept(100'000);
    EXPECT_FALSE(queue->Find(id)->isOnFlash);
}

TEST_F(QueueTest, WhatEndsOnAReadOnlyFlashIsNotDeliveredAgainByTheNextService) {
    test::MemoryMount disk(flash, "size=1m");
    settings.durability = Settings::Durability::Early;
    Open();
    const uint64_t first = Accept(1000);
    const uint64_t second = Accept(1000);
    disk.MakeReadOnly();
    queue->Finish(first, Fate::Delivered);
    OpenAgain();
    EXPECT_THAT(Ids(), testing::ElementsAre(second));
    EXPECT_TRUE(IsThere(flash, first));
    OpenAgain();
    EXPECT_THAT(Ids(), testing::ElementsAre(second));
    EXPECT_EQ(queue->GetCounts().delivered, 1U);
    disk.MakeWritable();
    OpenAgain();
    EXPECT_FALSE(IsThere(flash, first));
}

TEST_F(QueueTest, CountsAreWrittenWhereNothingNewCanBe) {
    const test::MemoryMount disk(ram, "size=64k");
    Open();
    const uint64_t id = Accept(1000);
    std::ofstream others(ram + "/others");
    others << std::string(100'000, 'x') << std::flush;
    queue->Finish(id, Fate::Expired);
    OpenAgain();
    EXPECT_EQ(queue->GetCounts().expired, 1U);
}

}  // namespace
}  // namespace kelto::halvek::outbox
