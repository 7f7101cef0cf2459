#include "kelto/msgbus/BusConnection.h"
#include "kelto/msgbus/ProviderCall.h"
#include "tests/fakes/ScriptedService.h"
#include "tests/support/Matchers.h"
#include "tests/support/PrivateBus.h"

#include <malloc.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <string>
#include <vector>

namespace kelto::msgbus {

namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
using test::ScriptedService;

/** What is allocated in this process. A sanitizer's allocator says 0. */
size_t HeldBytes() {
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

Strings GetNamesInTheFlood() {
    ProviderCall call("Test", "GetNames");
    call.Send();
    return call.ReadStrings();
}

std::vector<test::BusSignal> Unasked(const std::string& destination, size_t count, size_t size = 0) {
    return std::vector<test::BusSignal>(count, {.path = "/com/zentu/test",
                                                .interface = "com.zentu.test",
                                                .member = "Unasked",
                                                .arguments = {std::string(size, 'x')},
                                                .destination = destination});
}

/** A service that is called, somebody else on the bus, and the calling thread's connection. */
class ProviderCallFlood : public ::testing::Test {
protected:
    ProviderCallFlood() {
        service.Answer("GetNames", {Strings{"Remote", "Local"}});
        before = daemon.UniqueNames();
        GetNamesInTheFlood();
        callersName = Newcomer();
    }

    /** The name of the one connection that has come since the beginning. */
    std::string Newcomer() const {
        Strings names = daemon.UniqueNames();
        std::erase_if(names, [&](const std::string& name) {
            return std::find(before.begin(), before.end(), name) != before.end();
        });
        EXPECT_THAT(names, SizeIs(1));
        return names.empty() ? "" : names.front();
    }

    const test::PrivateBus daemon;
    ScriptedService service{"Test"};
    ScriptedService stranger{""};
    Strings before;
    std::string callersName;
};

TEST_F(ProviderCallFlood, AFewMessagesThatNobodyAskedForLeaveTheConnectionAsItIs) {
    stranger.Emit(Unasked(callersName, 8));
    EXPECT_THAT(GetNamesInTheFlood(), ElementsAre("Remote", "Local"));
    EXPECT_EQ(Newcomer(), callersName);
}

TEST_F(ProviderCallFlood, MoreThanAFewHaveItOpenedAnewBeforeTheNextCall) {
    stranger.Emit(Unasked(callersName, 9));
    EXPECT_THAT(GetNamesInTheFlood(), ElementsAre("Remote", "Local"));
    EXPECT_NE(Newcomer(), callersName);
    EXPECT_THAT(service.Calls(), SizeIs(2));
}

TEST_F(ProviderCallFlood, OneLargeMessageDoesTheSame) {
    stranger.Emit(Unasked(callersName, 1, 5000));
    EXPECT_THAT(GetNamesInTheFlood(), ElementsAre("Remote", "Local"));
    EXPECT_NE(Newcomer(), callersName);
}

TEST_F(ProviderCallFlood, WhatWasSentToAnIdleConnectionIsNotReadBeforeTheNextCall) {
    stranger.Emit(Unasked(callersName, 20000));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THAT(GetNamesInTheFlood(), ElementsAre("Remote", "Local"));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_NE(Newcomer(), callersName);
}

TEST_F(ProviderCallFlood, WhatComesWhileACallWaitsIsNotKept) {
    service.Hold();
    std::future<size_t> keptBytes = std::async(std::launch::async, [] {
        const size_t heldBefore = HeldBytes();
        GetNamesInTheFlood();
        return HeldBytes() - std::min(heldBefore, HeldBytes());
    });
    ASSERT_TRUE(service.WaitForCalls(2));
    before.push_back(callersName);
    stranger.Emit(Unasked(Newcomer(), 100, 100'000));
    service.Release();
    EXPECT_LT(keptBytes.get(), 2'000'000U);
}

TEST(BusConnection, OneThatLibsystemdHasClosedIsDead) {
    const test::PrivateBus daemon;
    BusConnection connection(BusConnection::Clock::now() + 5s);
    EXPECT_TRUE(connection.Drain());
    sd_bus_close(connection.Get());
    EXPECT_FALSE(connection.Drain());
}

}  // namespace

}  // namespace kelto::msgbus
