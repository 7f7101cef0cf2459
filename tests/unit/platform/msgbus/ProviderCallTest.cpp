#include "kelto/msgbus/ProviderCall.h"
#include "kelto/osa/Exception.h"
#include "tests/fakes/ScriptedService.h"
#include "tests/fakes/SilentSocket.h"
#include "tests/support/Descriptors.h"
#include "tests/support/Matchers.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/ProcessState.h"
#include "tests/support/WaitUntil.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <future>
#include <optional>
#include <thread>
#include <vector>

namespace kelto::msgbus {

namespace {

using namespace std::chrono_literals;
using State = test::PrivateBus::State;
using test::ScriptedService;
using Strings = std::vector<std::string>;

Strings GetNames() {
    ProviderCall call("Test", "GetNames");
    call.Send();
    return call.ReadStrings();
}

/** Calls, and gives the text of the failure. */
std::string FailureOf(const std::function<void()>& call) {
    try {
        call();
    } catch (const osa::Exception& exception) {
        return exception.what();
    }
    return "no failure";
}

uint64_t Bit(int signal) {
    return uint64_t{1} << (signal - 1);
}

const uint64_t fourSignals = Bit(SIGALRM) | Bit(SIGHUP) | Bit(SIGINT) | Bit(SIGTERM);

/** The bus and its service, as they are after a start of both. */
class ProviderCallTest : public ::testing::Test {
protected:
    ProviderCallTest() { StartService(); }

    void StartService() {
        service.emplace("Test");
        service->Answer("GetNames", {Strings{"Remote", "Local"}});
    }

    /** Another bus at the same address, with the same service. */
    void RestartBus() {
        daemon.Kill();
        service.reset();
        daemon.Start();
        StartService();
    }

    test::PrivateBus daemon;
    std::optional<ScriptedService> service;
    std::atomic<bool> restarted = false;
};

TEST_F(ProviderCallTest, GoesToTheNameObjectAndInterfaceOfTheProvider) {
    ProviderCall call("Test", "Mix");
    service->Answer("Mix", {true, 7, Strings{}, false, -7});
    call.Append("text").Append(int32_t{-5}).Append(0.25).AppendBool(true).AppendBool(false).Append("");
    call.Send();
    EXPECT_TRUE(call.ReadBool());
    EXPECT_EQ(call.ReadInt(), 7);
    EXPECT_THAT(call.ReadStrings(), IsEmpty());
    EXPECT_FALSE(call.ReadBool());
    EXPECT_EQ(call.ReadInt(), -7);
    EXPECT_THAT(service->Calls(), ElementsAre(ScriptedService::Call{
                                      .interface = "com.kelto.Test",
                                      .method = "Mix",
                                      .signature = "sidbbs",
                                      .arguments = {std::string("text"), -5, 0.25, true, false, std::string("")}}));
}

TEST_F(ProviderCallTest, AnErrorOfTheServiceComesWithItsNameAndText) {
    service->Fail("GetNames", "com.kelto.Error.Busy", "100% busy: %s");
    EXPECT_THAT(GetNames, FailsWith("com.kelto.Error.Busy: 100% busy: %s"));
}

TEST_F(ProviderCallTest, AnErrorOfTheServiceWithoutATextIsItsName) {
    service->Fail("GetNames", "com.kelto.Error.Busy", "");
    EXPECT_THAT(GetNames, FailsWith("com.kelto.Error.Busy: "));
}

TEST_F(ProviderCallTest, AServiceThatIsNotThereFailsAtOnce) {
    service.reset();
    std::string failure;
    EXPECT_LT(test::TimeOf([&] { failure = FailureOf(GetNames); }), 1s);
    EXPECT_THAT(failure, StartsWith("org.freedesktop.DBus.Error.ServiceUnknown: "));
}

TEST_F(ProviderCallTest, AMethodThatTheServiceDoesNotKnowFails) {
    EXPECT_THAT(FailureOf([] { ProviderCall("Test", "Nonsense").Send(); }),
                StartsWith("org.freedesktop.DBus.Error.UnknownMethod: "));
}

TEST_F(ProviderCallTest, AReplyOfOtherTypesFails) {
    service->Answer("GetNames", {7});
    EXPECT_THAT(FailureOf(GetNames), StartsWith("Cannot read a reply: "));
    service->Answer("GetNames", {});
    EXPECT_THAT(FailureOf(GetNames), StartsWith("Cannot read a reply: "));
    service->Answer("GetNumber", {std::string("7")});
    const auto getNumber = [] {
        ProviderCall call("Test", "GetNumber");
        call.Send();
        call.ReadInt();
    };
    EXPECT_THAT(FailureOf(getNumber), StartsWith("Cannot read a reply: "));
    service->Answer("GetNames", {Strings{"still", "usable"}});
    EXPECT_THAT(GetNames(), ElementsAre("still", "usable"));
}

TEST_F(ProviderCallTest, WithoutABusItFailsAtOnceAndThrowsNothingElse) {
    daemon.Kill();
    std::string failure;
    EXPECT_LT(test::TimeOf([&] { failure = FailureOf(GetNames); }), 1s);
    EXPECT_THAT(failure, StartsWith("Cannot open the message bus: "));
}

TEST_F(ProviderCallTest, OneThreadUsesOneConnectionForAllItsCalls) {
    GetNames();
    const size_t connections = daemon.UniqueNames().size();
    const size_t descriptors = test::OpenDescriptors().size();
    for (int round = 0; round < 50; ++round) {
        EXPECT_THAT(GetNames(), SizeIs(2));
    }
    EXPECT_EQ(daemon.UniqueNames().size(), connections);
    EXPECT_EQ(test::OpenDescriptors().size(), descriptors);
}

TEST_F(ProviderCallTest, CallsOfSeveralThreadsDoNotWaitForEachOther) {
    ScriptedService other("Other");
    other.Answer("GetNames", {Strings{}});
    service->Hold();
    std::vector<std::future<Strings>> waiting;
    for (int number = 0; number < 3; ++number) {
        waiting.push_back(std::async(std::launch::async, GetNames));
    }
    ASSERT_TRUE(service->WaitForCalls(3));
    std::async(std::launch::async, [] { ProviderCall("Other", "GetNames").Send(); }).get();
    ProviderCall("Other", "GetNames").Send();
    EXPECT_THAT(other.Calls(), SizeIs(2));
    for (std::future<Strings>& call : waiting) {
        EXPECT_EQ(call.wait_for(0s), std::future_status::timeout);
    }
    service->Release();
    for (std::future<Strings>& call : waiting) {
        EXPECT_THAT(call.get(), ElementsAre("Remote", "Local"));
    }
}

TEST_F(ProviderCallTest, TheConnectionGoesWithItsThread) {
    const size_t before = test::OpenDescriptors().size();
    const size_t connections = daemon.UniqueNames().size();
    for (int round = 0; round < 20; ++round) {
        std::thread([] { GetNames(); }).join();
    }
    std::thread([this] {
        service->Fail("GetNames", "com.kelto.Error.Busy", "");
        FailureOf(GetNames);
    }).join();
    EXPECT_EQ(test::OpenDescriptors().size(), before);
    EXPECT_TRUE(test::WaitUntil([&] { return daemon.UniqueNames().size() == connections; }));
}

TEST_F(ProviderCallTest, TheFirstCallAfterTheBusHasBeenRestartedIsNotLost) {
    GetNames();
    for (int round = 0; round < 5; ++round) {
        RestartBus();
        EXPECT_THAT(GetNames(), ElementsAre("Remote", "Local"));
        EXPECT_THAT(service->Calls(), SizeIs(1));
    }
}

TEST_F(ProviderCallTest, ADeadConnectionIsReplacedWithoutLeavingADescriptor) {
    GetNames();
    const size_t before = test::OpenDescriptors().size();
    for (int round = 0; round < 5; ++round) {
        RestartBus();
        GetNames();
    }
    EXPECT_EQ(test::OpenDescriptors().size(), before);
}

TEST_F(ProviderCallTest, AfterACallWithoutABusTheNextOneFindsItsReturn) {
    GetNames();
    daemon.Kill();
    EXPECT_NE(FailureOf(GetNames), "no failure");
    EXPECT_NE(FailureOf(GetNames), "no failure");
    RestartBus();
    EXPECT_THAT(GetNames(), ElementsAre("Remote", "Local"));
}

TEST_F(ProviderCallTest, ACallThatDiesUnderWayFailsAndIsNeverRepeated) {
    service->Hold();
    std::future<std::string> failure = std::async(std::launch::async, [this] {
        const std::string first = FailureOf(GetNames);
        // On the same thread, so that a request kept for later would go out before this one.
        test::WaitUntil([this] { return restarted.load(); });
        ProviderCall("Test", "GetNames").Send();
        return first;
    });
    ASSERT_TRUE(service->WaitForCalls(1));
    RestartBus();
    restarted = true;
    EXPECT_THAT(failure.get(), HasSubstr("Connection reset by peer"));
    EXPECT_THAT(service->Calls(), SizeIs(1));
}

TEST_F(ProviderCallTest, AServiceThatEndsUnderWayFailsTheCall) {
    service->Hold();
    std::future<std::string> failure = std::async(std::launch::async, [] { return FailureOf(GetNames); });
    ASSERT_TRUE(service->WaitForCalls(1));
    service.reset();
    EXPECT_THAT(failure.get(), StartsWith("org.freedesktop.DBus.Error.NoReply: "));
}

TEST_F(ProviderCallTest, AServiceThatHangsFailsAfterFiveSecondsAndItsLateReplyIsNobodyElses) {
    service->Hold();
    std::string failure;
    EXPECT_THAT(test::TimeOf([&] { failure = FailureOf(GetNames); }), AllOf(Ge(4900ms), Lt(9s)));
    EXPECT_EQ(failure, "org.freedesktop.DBus.Error.Timeout: Connection timed out");
    service->Release();
    service->Answer("GetNames", {Strings{"new"}});
    EXPECT_THAT(GetNames(), ElementsAre("new"));
}

TEST_F(ProviderCallTest, ACallThatHangsTakesNoLongerThanFiveSecondsTakeOnThisMachine) {
    service->Hold();
    std::vector<std::future<std::chrono::milliseconds>> calls;
    for (int number = 0; number < 3; ++number) {
        calls.push_back(std::async(std::launch::async, [] { return test::TimeOf([] { FailureOf(GetNames); }); }));
    }
    const std::chrono::milliseconds five = test::TimeOf([] { poll(nullptr, 0, 5000); });
    std::chrono::milliseconds quickest = std::chrono::milliseconds::max();
    for (std::future<std::chrono::milliseconds>& call : calls) {
        quickest = std::min(quickest, call.get());
    }
    EXPECT_LT(quickest, five + 700ms);
}

TEST(ProviderCallConnection, ABusThatAcceptsAndNeverAnswersFailsTheCallAfterFiveSeconds) {
    const test::PrivateBus daemon(State::Absent);
    const test::SilentSocket silent(daemon.GetSocketPath());
    std::string failure;
    EXPECT_THAT(test::TimeOf([&] { failure = FailureOf(GetNames); }), AllOf(Ge(4900ms), Lt(9s)));
    EXPECT_EQ(failure, "Cannot open the message bus: Connection timed out");
}

TEST(ProviderCallConnection, ASignalDoesNotEndTheWaitForABusThatIsSlow) {
    const test::PrivateBus daemon(State::Absent);
    const test::SilentSocket silent(daemon.GetSocketPath());
    struct sigaction before {};
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before);
    std::atomic<bool> done = false;
    const pthread_t caller = pthread_self();
    std::thread disturbing([&] {
        while (!test::WaitUntil([&] { return done.load(); }, 100ms)) {
            pthread_kill(caller, SIGUSR1);
        }
    });
    EXPECT_EQ(FailureOf(GetNames), "Cannot open the message bus: Connection timed out");
    done = true;
    disturbing.join();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(ProviderCallTest, OpeningTheConnectionAndTheCallTakeFiveSecondsTogether) {
    service->Hold();
    daemon.Freeze();
    std::future<std::chrono::milliseconds> time =
        std::async(std::launch::async, [] { return test::TimeOf([] { FailureOf(GetNames); }); });
    EXPECT_EQ(time.wait_for(3s), std::future_status::timeout);
    daemon.Thaw();
    EXPECT_THAT(time.get(), AllOf(Ge(4900ms), Lt(7900ms)));
    EXPECT_THAT(service->Calls(), SizeIs(1));
}

/** Counts the four signals, with plain handlers, for the length of a scope. */
class SignalCounts {
public:
    SignalCounts() {
        for (size_t number = 0; number < signals.size(); ++number) {
            counts[number] = 0;
            struct sigaction action {};
            action.sa_handler = Count;
            sigaction(signals[number], &action, &before[number]);
        }
    }
    ~SignalCounts() {
        for (size_t number = 0; number < signals.size(); ++number) {
            sigaction(signals[number], &before[number], nullptr);
        }
    }
    SignalCounts(const SignalCounts&) = delete;
    SignalCounts& operator=(const SignalCounts&) = delete;

    static constexpr std::array<int, 4> signals = {SIGALRM, SIGHUP, SIGINT, SIGTERM};
    static std::array<std::atomic<int>, 4> counts;

private:
    static void Count(int signal) {
        for (size_t number = 0; number < signals.size(); ++number) {
            counts[number] += signals[number] == signal ? 1 : 0;
        }
    }

    std::array<struct sigaction, 4> before{};
};

std::array<std::atomic<int>, 4> SignalCounts::counts;

TEST_F(ProviderCallTest, FourSignalsWaitForTheEndOfTheCallWhichLosesNothingByThem) {
    const SignalCounts counts;
    service->Hold();
    std::promise<pid_t> started;
    std::future<pid_t> id = started.get_future();
    Strings names;
    uint64_t maskAfter = ~uint64_t{0};
    std::thread caller([&] {
        started.set_value(gettid());
        names = GetNames();
        maskAfter = test::BlockedSignals(gettid());
    });
    const pid_t callerId = id.get();
    const uint64_t maskBefore = test::BlockedSignals(gettid());
    ASSERT_TRUE(service->WaitForCalls(1));
    EXPECT_EQ(test::BlockedSignals(callerId), maskBefore | fourSignals);
    for (const int signal : SignalCounts::signals) {
        pthread_kill(caller.native_handle(), signal);
    }
    for (const std::atomic<int>& count : SignalCounts::counts) {
        EXPECT_EQ(count, 0);
    }
    service->Release();
    caller.join();
    EXPECT_THAT(names, ElementsAre("Remote", "Local"));
    EXPECT_EQ(maskAfter, maskBefore);
    for (const std::atomic<int>& count : SignalCounts::counts) {
        EXPECT_EQ(count, 1);
    }
}

TEST_F(ProviderCallTest, ASignalThatIsNotBlockedLosesNothingEither) {
    struct sigaction action {};
    struct sigaction saved {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &saved);
    service->Hold();
    std::promise<pid_t> started;
    Strings names;
    std::thread caller([&] {
        started.set_value(gettid());
        names = GetNames();
    });
    const pid_t id = started.get_future().get();
    ASSERT_TRUE(service->WaitForCalls(1));
    ASSERT_TRUE(test::WaitUntil([&] { return test::IsAsleep(id); }));
    const uint64_t sleeps = test::CountSleeps(id);
    pthread_kill(caller.native_handle(), SIGUSR1);
    EXPECT_TRUE(test::WaitUntil([&] { return test::CountSleeps(id) > sleeps; })) << "it waits again";
    service->Release();
    caller.join();
    EXPECT_THAT(names, ElementsAre("Remote", "Local"));
    sigaction(SIGUSR1, &saved, nullptr);
}

TEST_F(ProviderCallTest, TheMaskIsRestoredHoweverTheCallEnds) {
    sigset_t own;
    sigset_t saved;
    sigemptyset(&own);
    sigaddset(&own, SIGHUP);
    sigaddset(&own, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &own, &saved);
    const uint64_t before = test::BlockedSignals(gettid());
    EXPECT_EQ(before & fourSignals, Bit(SIGHUP));
    GetNames();
    EXPECT_EQ(test::BlockedSignals(gettid()), before) << "after a reply";
    service->Fail("GetNames", "com.kelto.Error.Busy", "");
    FailureOf(GetNames);
    EXPECT_EQ(test::BlockedSignals(gettid()), before) << "after an error";
    service->Answer("GetNames", {1});
    FailureOf(GetNames);
    EXPECT_EQ(test::BlockedSignals(gettid()), before) << "after a reply that cannot be read";
    service.reset();
    FailureOf(GetNames);
    EXPECT_EQ(test::BlockedSignals(gettid()), before) << "without a service";
    daemon.Kill();
    FailureOf(GetNames);
    EXPECT_EQ(test::BlockedSignals(gettid()), before) << "without a bus";
    {
        const auto unsent = FailureOf([] { ProviderCall("Test", "GetNames"); });
    }
    EXPECT_EQ(test::BlockedSignals(gettid()), before) << "without a connection to make the call by";
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

TEST_F(ProviderCallTest, ManyThreadsCallWhileTheBusGoesAndComes) {
    std::atomic<int> answered = 0;
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&](const std::stop_token& end) {
            while (!end.stop_requested()) {
                answered += FailureOf(GetNames) == "no failure" ? 1 : 0;
            }
        });
    }
    for (int round = 0; round < 5; ++round) {
        const int before = answered;
        EXPECT_TRUE(test::WaitUntil([&] { return answered > before + 20; }));
        RestartBus();
    }
    const int before = answered;
    EXPECT_TRUE(test::WaitUntil([&] { return answered > before + 20; }));
}

}  // namespace

}  // namespace kelto::msgbus
