#include "tests/fakes/IntendedWaits.h"

#include "tests/support/WaitUntil.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <ctime>
#include <mutex>

namespace {

using std::chrono::microseconds;

// Times of 64 bits on a processor of 32 have functions of their own.
#ifdef __USE_TIME_BITS64
constexpr const char* realName = "__pthread_cond_clockwait64";
#else
constexpr const char* realName = "pthread_cond_clockwait";
#endif

std::mutex mutex;
bool noting = false;
size_t count = 0;
std::array<microseconds, 1024> lengths{};
microseconds lastEnd{};

microseconds MicrosecondsOf(const timespec& time) {
    return std::chrono::seconds(time.tv_sec) + microseconds(time.tv_nsec / 1000);
}

void Note(microseconds begin, microseconds end) {
    const std::lock_guard lock(mutex);
    if (noting && end != lastEnd && count < lengths.size()) {
        lengths[count++] = end - begin;
        lastEnd = end;
    }
}

}  // namespace

// The program's own definition stands before the C library's.
extern "C" int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* held, clockid_t clock,
                                      const timespec* end) {
    static const auto real = reinterpret_cast<decltype(&pthread_cond_clockwait)>(dlsym(RTLD_NEXT, realName));
    timespec now{};
    clock_gettime(clock, &now);
    Note(MicrosecondsOf(now), MicrosecondsOf(*end));
    return real(condition, held, clock, end);
}

namespace kelto::test {

IntendedWaits::IntendedWaits() {
    const std::lock_guard lock(mutex);
    noting = true;
    count = 0;
}

IntendedWaits::~IntendedWaits() {
    const std::lock_guard lock(mutex);
    noting = false;
}

std::vector<microseconds> IntendedWaits::Get() const {
    const std::lock_guard lock(mutex);
    return {lengths.begin(), lengths.begin() + static_cast<std::ptrdiff_t>(count)};
}

bool IntendedWaits::WaitForCount(size_t wanted) const {
    return WaitUntil([&] {
        const std::lock_guard lock(mutex);
        return count >= wanted;
    });
}

void ExpectWaits(const std::vector<std::chrono::milliseconds>& expected,
                 const std::function<void(const IntendedWaits&)>& round) {
    constexpr int mostRounds = 20;
    std::vector<microseconds> longest(expected.size());
    const auto isWhole = [&](size_t at) { return longest[at] > expected[at] - std::chrono::milliseconds(1); };
    size_t whole = 0;
    for (int rounds = 0; rounds < mostRounds && whole < expected.size(); ++rounds) {
        const IntendedWaits waits;
        round(waits);
        const std::vector<microseconds> meant = waits.Get();
        ASSERT_GE(meant.size(), expected.size());
        whole = 0;
        for (size_t at = 0; at < expected.size(); ++at) {
            EXPECT_LE(meant[at].count(), microseconds(expected[at]).count()) << "wait " << at;
            longest[at] = std::max(longest[at], meant[at]);
            whole += isWhole(at) ? 1U : 0U;
        }
    }
    for (size_t at = 0; at < expected.size(); ++at) {
        EXPECT_TRUE(isWhole(at)) << "wait " << at << " is at most " << longest[at].count() << " us";
    }
}

}  // namespace kelto::test
