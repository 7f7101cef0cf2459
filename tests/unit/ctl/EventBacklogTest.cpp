#include "companions/ctl/listen/EventBacklog.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

constexpr EventBacklog::Milliseconds now{5000};

class AnEventBacklog : public ::testing::Test {
protected:
    static std::string Block(int number, size_t size = 0) {
        return "[Door]\nn=" + std::to_string(number) + "\ntext=" + std::string(size, 'x') + "\n.\n";
    }

    static std::string Number(const companion::ReceivedEvent& event) { return *event.Find("n"); }

    std::vector<std::pair<std::string, int64_t>> taken;
    std::vector<std::string> dropped;
    EventBacklog backlog{1000,
                         [this](const companion::ReceivedEvent& event, const ReadTime& time) {
                             taken.emplace_back(Number(event), time.milliseconds);
                         },
                         [this](const companion::ReceivedEvent& event) { dropped.push_back(Number(event)); }};
};

TEST_F(AnEventBacklog, KeepsTheTimeAtWhichEachEventWasRead) {
    backlog.Add(Block(1), {.milliseconds = 10}, now);
    backlog.Add(Block(2) + "[Door]\nn=", {.milliseconds = 20}, now);
    backlog.Add("3\n.\n", {.milliseconds = 30}, now);
    EXPECT_THAT(taken, IsEmpty());
    while (!backlog.IsEmpty()) {
        backlog.TakeSome(now);
    }
    EXPECT_THAT(taken, ElementsAre(Pair("1", 10), Pair("2", 20), Pair("3", 30)));
}

TEST_F(AnEventBacklog, DropsTheOldestBeyondItsRoomAndTellsOfEach) {
    for (int number = 1; number <= 7; ++number) {
        backlog.Add(Block(number, 150), {.milliseconds = number}, now);
    }
    EXPECT_THAT(dropped, ElementsAre("1", "2", "3", "4"));
    while (!backlog.IsEmpty()) {
        backlog.TakeSome(now);
    }
    EXPECT_THAT(taken, ElementsAre(Pair("5", 5), Pair("6", 6), Pair("7", 7)));
}

TEST_F(AnEventBacklog, AnEventOfWhichAPartWasReadBeforeTheDroppingIsOneAllTheSame) {
    backlog.Add("[Door]\nn=1\n", {.milliseconds = 1}, now);
    backlog.TakeSome(now);
    backlog.Add(".\n" + Block(2, 900), {.milliseconds = 2}, now);
    backlog.Add(Block(3, 400), {.milliseconds = 3}, now);
    backlog.TakeSome(now);
    EXPECT_THAT(dropped, ElementsAre("1", "2"));
    EXPECT_THAT(taken, ElementsAre(Pair("3", 3)));
}

TEST_F(AnEventBacklog, ABlockWithoutAnEndIsClosedAfterItsTime) {
    backlog.Add("[Door]\nn=1\n", {.milliseconds = 1}, now);
    backlog.TakeSome(now);
    ASSERT_TRUE(backlog.Deadline());
    backlog.CloseOverdue({.milliseconds = 9}, *backlog.Deadline());
    EXPECT_THAT(taken, ElementsAre(Pair("1", 9)));
}

TEST_F(AnEventBacklog, WhatAnEarlierReaderLeftComesFirst) {
    backlog.TakeLeftOver(Block(1) + "[Door]\nn=2", {.milliseconds = 1});
    backlog.Add(Block(3), {.milliseconds = 2}, now);
    backlog.TakeSome(now);
    EXPECT_THAT(taken, ElementsAre(Pair("1", 1), Pair("3", 2)));
}

}  // namespace

}  // namespace kelto::halvek::ctl
