#include "env/HalvekEnv.h"
#include "source/EventServerSource.h"
#include "source/ParkEventSource.h"
#include "source/TimerEventSource.h"
#include "tests/fakes/FakeProviders.h"
#include "tests/fakes/RecordingHandler.h"
#include "tests/support/Fifo.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Matchers.h"
#include "tests/support/ProcessState.h"
#include "tests/support/TempDir.h"
#include "tests/support/WaitUntil.h"

#include <pthread.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

namespace kelto::halvek::source {

namespace {

using namespace std::chrono_literals;

/** Fires as soon as it has been started, and then not for a minute. */
struct Timer {
    static constexpr const char* name = "TimerEventSource";
    static constexpr const char* logger = "halvek";

    Timer() { source->Configure({{"Interval.sec", "60"}}); }

    void SetOff() {}

    std::unique_ptr<TimerEventSource> source = std::make_unique<TimerEventSource>("Timer");
};

struct Server {
    static constexpr const char* name = "EventServerSource";
    static constexpr const char* logger = "halvek";

    Server() { source->Configure({{"Path", path}}); }

    void SetOff() { fifo.Write("[A]\n.\n"); }

    const test::TempDir folder;
    const std::string path = folder.PathOf("pipe");
    std::unique_ptr<EventServerSource> source = std::make_unique<EventServerSource>();
    test::Fifo fifo{path};
};

struct Park {
    static constexpr const char* name = "ParkEventSource";
    static constexpr const char* logger = "ParkEventSource";

    Park() { source->Configure({{"DwellTime.sec", "0"}}); }

    void SetOff() { providers->idleChange.Notify(0); }

    test::FakeProviders providers;
    HalvekEnv env;
    std::unique_ptr<ParkEventSource> source = std::make_unique<ParkEventSource>("Park", &env);
};

/** The sources that listen on a thread of their own. */
template <typename Kind>
class ListeningSource : public ::testing::Test {
protected:
    ListeningSource() {
        kind.source->AddHandler(&handler);
        log.Clear();
    }

    bool HasThread() const { return test::HasThread(threadName); }

    static std::string Debug(const std::string& text) { return std::string("Debug ") + Kind::logger + ": " + text; }
    static std::string Stop() { return Debug(std::string(Kind::name) + "::Stop()"); }
    static std::string Stopped() { return std::string("Information ") + Kind::logger + ": " + Kind::name + " stopped"; }

    /** What the thread leaves in the log when a handler throws. */
    void ExpectThreadEndedBy(const std::function<void()>& failure, const std::string& words) {
        test::RecordingHandler failing([&](Event&) { failure(); });
        kind.source->AddHandler(&failing);
        kind.source->StartListening();
        kind.SetOff();
        EXPECT_TRUE(log.WaitFor(std::string("Error kelto.osa: Thread ") + Kind::name + " ended by " + words));
        kind.source->StopListening();
        EXPECT_EQ(failing.Count(), 1U);
        EXPECT_FALSE(log.Has(Debug("DONE")));
    }

    const std::string threadName = std::string(Kind::name).substr(0, 15);
    test::LogCapture log;
    test::RecordingHandler handler;
    Kind kind;
};

using Kinds = ::testing::Types<Timer, Server, Park>;
TYPED_TEST_SUITE(ListeningSource, Kinds);

TYPED_TEST(ListeningSource, StoppedBeforeAStartOnlySaysSoAndStartsAsEver) {
    this->kind.source->StopListening();
    this->kind.source->StopListening();
    EXPECT_THAT(this->log.Lines(), ElementsAre(this->Stop(), this->Stopped(), this->Stop(), this->Stopped()));
    this->kind.source->StartListening();
    this->kind.SetOff();
    EXPECT_TRUE(this->handler.WaitForCount(1));
}

TYPED_TEST(ListeningSource, LosesAStopThatComesBeforeItsThread) {
    this->kind.source->Stop();
    EXPECT_THAT(this->log.Lines(), ElementsAre(this->Stop()));
    this->kind.source->StartListening();
    this->kind.SetOff();
    EXPECT_TRUE(this->handler.WaitForCount(1));
}

TYPED_TEST(ListeningSource, MayBeStartedAgainAfterAStop) {
    for (size_t round = 1; round <= 3; ++round) {
        this->kind.source->StartListening();
        this->kind.SetOff();
        EXPECT_TRUE(this->handler.WaitForCount(round));
        this->kind.source->StopListening();
        EXPECT_EQ(this->kind.source->GetCurrentThread(), nullptr);
    }
    EXPECT_EQ(this->log.Count(this->Debug("DONE")), 3U);
}

TYPED_TEST(ListeningSource, HasAThreadOfItsNameOnWhichItsHandlersRun) {
    std::array<char, 16> name{};
    test::RecordingHandler naming([&](Event&) { pthread_getname_np(pthread_self(), name.data(), name.size()); });
    this->kind.source->AddHandler(&naming);
    EXPECT_FALSE(this->HasThread());
    this->kind.source->StartListening();
    EXPECT_TRUE(this->HasThread());
    this->kind.SetOff();
    EXPECT_TRUE(naming.WaitForCount(1));
    this->kind.source->StopListening();
    EXPECT_EQ(name.data(), this->threadName);
    EXPECT_TRUE(test::WaitUntil([this] { return !this->HasThread(); }));
}

TYPED_TEST(ListeningSource, AStopWaitsForADeliveryInProgress) {
    std::promise<void> delivering;
    std::promise<void> release;
    std::atomic<bool> inside = false;
    test::RecordingHandler slow([&](Event&) {
        inside = true;
        delivering.set_value();
        release.get_future().wait();
        inside = false;
    });
    this->kind.source->AddHandler(&slow);
    this->kind.source->StartListening();
    this->kind.SetOff();
    delivering.get_future().wait();
    std::future<bool> stopped = std::async(std::launch::async, [&] {
        this->kind.source->StopListening();
        return !inside;
    });
    EXPECT_EQ(stopped.wait_for(100ms), std::future_status::timeout);
    release.set_value();
    EXPECT_TRUE(stopped.get());
    EXPECT_EQ(slow.Count(), 1U);
    EXPECT_TRUE(this->log.Has(this->Debug("DONE")));
}

TYPED_TEST(ListeningSource, AStandardExceptionOfAHandlerEndsTheThreadAndNotTheProcess) {
    this->ExpectThreadEndedBy([] { throw std::runtime_error("out of luck"); }, "an exception: out of luck");
}

TYPED_TEST(ListeningSource, AnExceptionOfAnyOtherTypeEndsTheThreadAndNotTheProcess) {
    this->ExpectThreadEndedBy([] { throw 42; }, "an unknown exception");
}

TYPED_TEST(ListeningSource, IsStoppedByItsDestruction) {
    this->kind.source->StartListening();
    this->kind.source.reset();
    EXPECT_TRUE(this->log.Has(this->Debug("DONE")));
    EXPECT_TRUE(test::WaitUntil([this] { return !this->HasThread(); }));
}

}  // namespace

}  // namespace kelto::halvek::source
