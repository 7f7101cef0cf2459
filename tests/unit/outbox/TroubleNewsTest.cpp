#include "companions/outbox/TroubleNews.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <memory>

namespace kelto::halvek::outbox {
namespace {

constexpr int64_t minute = 60'000;
constexpr int64_t hour = 60 * minute;

class TroubleNewsTest : public testing::Test {
protected:
    TroubleNewsTest() {
        mkfifo(Pipe().c_str(), 0600);
        reader.Reset(open(Pipe().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    }
    ~TroubleNewsTest() override { std::filesystem::remove_all(folder); }

    std::string Pipe() const { return folder + "/pipe"; }

    std::string Posted() {
        std::array<char, 4096> text{};
        const ssize_t length = read(reader.Get(), text.data(), text.size());
        return {text.data(), static_cast<size_t>(std::max<ssize_t>(length, 0))};
    }

    void Fail(const std::string& target, const std::string& why = "refused") { targets[target].state.Failed(0, why); }

    /** One episode is told and over, and the next has begun. */
    void FailAgainAfterAMinute() {
        Fail("a");
        news.Tell(targets, 0);
        targets["a"].state.Succeeded();
        news.Tell(targets, minute);
        Posted();
        Fail("a");
    }

    std::string folder = [] {
        std::string name = "/tmp/news-XXXXXX";
        return std::string(mkdtemp(name.data()));
    }();
    companion::UniqueFd reader;
    Targets targets;
    TroubleNews news{Pipe(), folder + "/trouble"};
};

TEST_F(TroubleNewsTest, ATargetThatIsWellIsNoNews) {
    targets["a"].state.Succeeded();
    EXPECT_EQ(news.Tell(targets, 0), INT64_MAX);
    EXPECT_EQ(Posted(), "");
}

TEST_F(TroubleNewsTest, AnEpisodeIsToldOnceWhenItBeginsAndOnceWhenItIsOver) {
    Fail("a");
    news.Tell(targets, 0);
    EXPECT_EQ(Posted(), "[OutboxTrouble]\ntarget=a\nreason=refused\n.\n");
    Fail("a", "silent");
    EXPECT_EQ(news.Tell(targets, 2 * hour), INT64_MAX);
    EXPECT_EQ(Posted(), "");
    targets["a"].state.Succeeded();
    news.Tell(targets, 3 * hour);
    EXPECT_EQ(Posted(), "[OutboxRecovered]\ntarget=a\n.\n");
    news.Tell(targets, 4 * hour);
    EXPECT_EQ(Posted(), "");
}

TEST_F(TroubleNewsTest, ASecondEpisodeWithinTheHourIsToldAtItsEndIfItLastsUntilThen) {
    FailAgainAfterAMinute();
    EXPECT_EQ(news.Tell(targets, 2 * minute), hour);
    EXPECT_EQ(Posted(), "");
    news.Tell(targets, hour);
    EXPECT_EQ(Posted(), "[OutboxTrouble]\ntarget=a\nreason=refused\n.\n");
}

TEST_F(TroubleNewsTest, ASecondEpisodeThatIsShortIsNotToldAtAll) {
    FailAgainAfterAMinute();
    news.Tell(targets, 2 * minute);
    targets["a"].state.Succeeded();
    news.Tell(targets, 3 * minute);
    news.Tell(targets, hour);
    EXPECT_EQ(Posted(), "");
}

TEST_F(TroubleNewsTest, WhatAServerSaysBecomesNoOtherEvent) {
    Fail("a", "no\n.\n[Alarm]");
    news.Tell(targets, 0);
    EXPECT_EQ(Posted(), "[OutboxTrouble]\ntarget=a\nreason=no?.?[Alarm]\n.\n");
}

TEST_F(TroubleNewsTest, WithoutAReaderItIsTriedAgainAMinuteLater) {
    reader.Reset();
    Fail("a");
    EXPECT_EQ(news.Tell(targets, 0), minute);
    reader.Reset(open(Pipe().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(news.Tell(targets, minute - 1), minute);
    EXPECT_EQ(Posted(), "");
    news.Tell(targets, minute);
    EXPECT_EQ(Posted(), "[OutboxTrouble]\ntarget=a\nreason=refused\n.\n");
}

TEST_F(TroubleNewsTest, TheNextProcessTellsTheRecovery) {
    Fail("a");
    news.Tell(targets, 0);
    Posted();
    TroubleNews next(Pipe(), folder + "/trouble");
    Targets others;
    next.Load(others);
    next.Tell(others, minute);
    EXPECT_EQ(Posted(), "");
    others["a"].state.Succeeded();
    next.Tell(others, 2 * minute);
    EXPECT_EQ(Posted(), "[OutboxRecovered]\ntarget=a\n.\n");
}

TEST_F(TroubleNewsTest, AHandlerThatWouldMailItIsFound) {
    const auto find = [&](const std::string& type, const std::string& handler) {
        std::ofstream(folder + "/10.ini") << "[Events/Source#3]\nType=" << type << "\n";
        std::ofstream(folder + "/20.ini")
            << "[Events/Handler#1]\nType=" << handler << "\n[Events/Handler#1/SourceIds]\n0=Events/Source#3\n";
        return TroubleNews::MailingHandler(folder);
    };
    EXPECT_EQ(find("OutboxTrouble", "Email"), "Events/Handler#1");
    EXPECT_EQ(find("OutboxRecovered", "Email"), "Events/Handler#1");
    EXPECT_EQ(find("OutboxTrouble", "Relay"), "");
    EXPECT_EQ(find("Alarm", "Email"), "");
    EXPECT_EQ(TroubleNews::MailingHandler("/not/there"), "");
}

}  // namespace
}  // namespace kelto::halvek::outbox
