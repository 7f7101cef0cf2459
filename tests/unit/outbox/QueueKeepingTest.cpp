#include "companions/outbox/MemoryFile.h"
#include "companions/outbox/Queue.h"
#include "companions/outbox/Uptime.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>

namespace kelto::halvek::outbox {
namespace {

using testing::ElementsAre;

class QueueKeepingTest : public testing::Test {
protected:
    QueueKeepingTest() {
        std::filesystem::create_directory(folder + "/ram");
        std::filesystem::create_directory(folder + "/flash");
        Restart();
    }
    ~QueueKeepingTest() override { std::filesystem::remove_all(folder); }

    /** Whatever the queue knew is gone; what is in the folders is not. */
    void Restart() {
        queue = std::make_unique<Queue>(folder + "/ram", folder + "/flash", settings);
        queue->Open();
    }

    Item& Put(size_t size, ItemHeader::Kind kind = ItemHeader::Kind::Picture) {
        ItemHeader header;
        header.kind = kind;
        header.recipients = {"a@x", "b@x"};
        const std::string payload(size, 'x');
        Item& item = queue->Accept(header, MemoryFile::Of(payload).Get(), size);
        queue->Confirm(item);
        return item;
    }

    std::vector<uint64_t> Ids() const {
        std::vector<uint64_t> ids;
        for (const auto& [id, item] : queue->All()) {
            ids.push_back(id);
        }
        return ids;
    }

    void KeepDue() {
        while (queue->KeepNext() <= Uptime()) {
        }
    }

    std::string folder = [] {
        std::string name = "/tmp/queue-XXXXXX";
        return std::string(mkdtemp(name.data()));
    }();
    Settings settings;
    std::unique_ptr<Queue> queue;
};

TEST_F(QueueKeepingTest, AnItemThatNobodyHasHeardOfIsGoneAfterARestart) {
    queue->Accept({}, MemoryFile::Of("x").Get(), 1);
    Restart();
    EXPECT_TRUE(Ids().empty());
    EXPECT_EQ(queue->GetCounts().dropped, 0U);
}

TEST_F(QueueKeepingTest, AnItemThatCountsIsThereAfterARestart) {
    const uint64_t id = Put(10).file.id;
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(id));
}

TEST_F(QueueKeepingTest, AStartGivesUpTheOldestOfWhatIsTooMuch) {
    Put(1000);
    const uint64_t second = Put(1000).file.id;
    settings.spoolLimit = 1900;
    Restart();
    EXPECT_THAT(Ids(), ElementsAre(second));
}

TEST_F(QueueKeepingTest, TheOldestPictureGoesBeforeTheOldestMail) {
    const uint64_t mail = Put(1000, ItemHeader::Kind::Mail).file.id;
    Put(1000);
    settings.spoolLimit = 2900;
    const uint64_t last = Put(1000).file.id;
    EXPECT_THAT(Ids(), ElementsAre(mail, last));
}

TEST_F(QueueKeepingTest, WhatIsKeptSafeIsMovedToFlashOneByOne) {
    Item& first = Put(10);
    Item& second = Put(10);
    queue->KeepSafe(first);
    queue->KeepSafe(second);
    queue->KeepNext();
    EXPECT_NE(first.isOnFlash, second.isOnFlash);
    KeepDue();
    EXPECT_TRUE(first.isOnFlash && second.isOnFlash);
    EXPECT_TRUE(std::filesystem::is_empty(folder + "/ram/q"));
}

TEST_F(QueueKeepingTest, AFlashThatComesLateHasItsItemsTakenOverAndGetsThoseThatWaitForIt) {
    const uint64_t before = Put(10).file.id;
    queue->KeepAllSafe();
    std::filesystem::rename(folder + "/flash", folder + "/away");
    std::ofstream(folder + "/flash") << "no folder";
    Restart();
    Item& item = Put(20);
    const uint64_t id = item.file.id;
    queue->KeepSafe(item);
    queue->KeepNext();
    EXPECT_FALSE(item.isOnFlash);
    EXPECT_FALSE(queue->RetryFlash(Uptime() + 61'000));
    std::filesystem::remove(folder + "/flash");
    std::filesystem::rename(folder + "/away", folder + "/flash");
    EXPECT_FALSE(queue->RetryFlash(Uptime() + 61'000)) << "a minute after the last try";
    EXPECT_TRUE(queue->RetryFlash(Uptime() + 122'000));
    KeepDue();
    EXPECT_THAT(Ids(), testing::UnorderedElementsAre(before, id));
    EXPECT_TRUE(queue->Find(before)->isOnFlash);
    EXPECT_TRUE(queue->Find(id)->isOnFlash);
    EXPECT_FALSE(queue->RetryFlash(Uptime() + 300'000));
}

TEST_F(QueueKeepingTest, WhatHasFiveMinutesInRamIsMovedToFlash) {
    Item& item = Put(10);
    const int64_t due = queue->KeepNext();
    EXPECT_NEAR(static_cast<double>(due - Uptime()), 300'000, 2'000);
    EXPECT_FALSE(item.isOnFlash);
    item.keepSafeAt = Uptime();
    queue->KeepNext();
    EXPECT_TRUE(item.isOnFlash);
}

TEST_F(QueueKeepingTest, BeyondTheBudgetOfADayNothingIsWrittenToFlashAndARestartForgetsNoByteOfIt) {
    settings.flashBudget = 3000;
    for (int i = 0; i < 2; ++i) {
        Item& item = Put(1000);
        queue->KeepSafe(item);
        KeepDue();
        EXPECT_TRUE(item.isOnFlash);
        queue->Finish(item.file.id, Queue::Fate::Delivered);
        Restart();
    }
    Item& item = Put(1000);
    queue->KeepSafe(item);
    KeepDue();
    EXPECT_FALSE(item.isOnFlash);
}

TEST_F(QueueKeepingTest, WhatFitsNeitherRamNorFlashIsRefusedAndCostsNothingElse) {
    settings.durability = Settings::Durability::Ram;
    settings.ramLimit = 1500;
    const uint64_t id = Put(1000).file.id;
    EXPECT_THROW(Put(2000), QueueFull);
    EXPECT_THAT(Ids(), ElementsAre(id));
}

TEST_F(QueueKeepingTest, WhatIsKnownOfAMailsDeliveriesOutlivesARestart) {
    Item& item = Put(10, ItemHeader::Kind::Mail);
    item.wasUncertain = true;
    item.notBefore = 12345;
    item.settledRecipients = {"a@x"};
    queue->Remember(item);
    for (int i = 0; i < 2; ++i) {
        Restart();
        Item& found = queue->All().begin()->second;
        EXPECT_EQ(found.state, Item::State::Uncertain);
        EXPECT_TRUE(found.wasUncertain);
        EXPECT_EQ(found.notBefore, 12345);
        EXPECT_THAT(found.settledRecipients, ElementsAre("a@x"));
        queue->KeepAllSafe();
        EXPECT_TRUE(found.isOnFlash);
    }
}

TEST_F(QueueKeepingTest, AnotherBootHasAnotherUptime) {
    Item& item = Put(10, ItemHeader::Kind::Mail);
    item.wasUncertain = true;
    item.notBefore = 12345;
    queue->Remember(item);
    const std::string note = folder + "/ram/notes/" + SpoolFolder::NameOf(item.file.id);
    std::ofstream(note) << "boot=another\nnot-before=12345\nuncertain=yes\n";
    Restart();
    EXPECT_EQ(queue->All().begin()->second.notBefore, 0);
    EXPECT_TRUE(queue->All().begin()->second.wasUncertain);
}

}  // namespace
}  // namespace kelto::halvek::outbox
