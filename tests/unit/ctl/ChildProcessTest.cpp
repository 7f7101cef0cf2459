#include "companions/ctl/Failure.h"
#include "companions/ctl/model/ChildProcess.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>

namespace kelto::halvek::ctl {

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

constexpr size_t largeAnswer = size_t{1} << 20U;

void WriteRecords() {
    std::fputs("the first record\nthe last record\n", stderr);
}

TEST(ChildProcess, TheAnswerIsTheTasks) {
    EXPECT_EQ(ChildProcess::Run([] { return std::string("answer"); }), "answer");
    EXPECT_EQ(ChildProcess::Run([] { return std::string(); }), "");
    EXPECT_EQ(ChildProcess::Run([] { return std::string(largeAnswer, 'x'); }), std::string(largeAnswer, 'x'));
}

TEST(ChildProcess, WhatTheTaskThrowsIsAFailure) {
    const auto run = [] { ChildProcess::Run([]() -> std::string { throw std::runtime_error("no such thing"); }); };
    EXPECT_THAT(run, ThrowsMessage<Failure>("no such thing"));
}

TEST(ChildProcess, AnEndByASignalIsACrashToldWithTheLastRecord) {
    // Of any other signal an emulator writes a record of its own.
    const auto run = [] {
        ChildProcess::Run([]() -> std::string {
            WriteRecords();
            raise(SIGKILL);
            return "survived";
        });
    };
    EXPECT_THAT(run, ThrowsMessage<Failure>(AllOf(HasSubstr("has crashed: it was ended by Killed"),
                                                  HasSubstr("its last record: the last record"))));
}

TEST(ChildProcess, AnEndWithoutAnAnswerIsACrash) {
    const auto run = [] { ChildProcess::Run([]() -> std::string { _exit(7); }); };
    EXPECT_THAT(run,
                ThrowsMessage<Failure>(AllOf(HasSubstr("it ended with status 7"), HasSubstr("it wrote no record"))));
}

TEST(ChildProcess, ATaskThatNeverStopsComputingIsEndedAndToldWithTheLastRecord) {
    const auto run = [] {
        ChildProcess::Run(
            []() -> std::string {
                WriteRecords();
                while (getppid() != 0) {
                }
                return "answer";
            },
            {.processorSeconds = 1});
    };
    EXPECT_THAT(run, ThrowsMessage<Failure>(AllOf(HasSubstr("takes more than 1 s of processor time"),
                                                  HasSubstr("its last record: the last record"))));
}

TEST(ChildProcess, ATaskThatWaitsForEverIsEndedAndToldWithTheLastRecord) {
    const auto run = [] {
        ChildProcess::Run(
            []() -> std::string {
                WriteRecords();
                while (true) {
                    pause();
                }
            },
            {.waitMs = 1000});
    };
    EXPECT_THAT(run, ThrowsMessage<Failure>(
                         AllOf(HasSubstr("does not come to an end"), HasSubstr("its last record: the last record"))));
}

/** On a busy machine a task takes longer without doing more. */
TEST(ChildProcess, WaitingCostsNoProcessorTime) {
    const auto wait = []() -> std::string {
        usleep(1500000);
        return "answer";
    };
    EXPECT_EQ(ChildProcess::Run(wait, {.processorSeconds = 1}), "answer");
}

}  // namespace

}  // namespace kelto::halvek::ctl
