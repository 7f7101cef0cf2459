#include "kelto/osa/Mutex.h"
#include "kelto/osa/MutexAutoLock.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace kelto::osa {

namespace {

/** Whether another thread finds the lock free. It releases what it takes. */
bool IsFree(Mutex& mutex) {
    bool isFree = false;
    std::thread([&] {
        isFree = mutex.TryLock();
        if (isFree) {
            mutex.Unlock();
        }
    }).join();
    return isFree;
}

TEST(Mutex, HasItsName) {
    EXPECT_EQ(Mutex("EventMonitor::StructLock").GetName(), "EventMonitor::StructLock");
}

TEST(Mutex, IsFreeAtFirstAndTakenFromLockToUnlock) {
    Mutex mutex("Test");
    EXPECT_TRUE(IsFree(mutex));
    mutex.Lock();
    EXPECT_FALSE(IsFree(mutex));
    mutex.Unlock();
    EXPECT_TRUE(IsFree(mutex));
}

TEST(Mutex, IsFreeWhenItsOwnerHasReleasedItAsOftenAsTaken) {
    Mutex mutex("Test");
    mutex.Lock();
    mutex.Lock();
    EXPECT_TRUE(mutex.TryLock());
    mutex.Unlock();
    mutex.Unlock();
    EXPECT_FALSE(IsFree(mutex));
    mutex.Unlock();
    EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexAutoLock, HoldsTheLockForItsScope) {
    Mutex mutex("Test");
    {
        const MutexAutoLock outer(mutex);
        {
            const MutexAutoLock inner(mutex);
            EXPECT_FALSE(IsFree(mutex));
        }
        EXPECT_FALSE(IsFree(mutex));
    }
    EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexAutoLock, ReleasesWhenAnExceptionPasses) {
    Mutex mutex("Test");
    const auto throwing = [&mutex] {
        const MutexAutoLock lock(mutex);
        throw std::runtime_error("text");
    };
    EXPECT_THROW(throwing(), std::runtime_error);
    EXPECT_TRUE(IsFree(mutex));
}

TEST(MutexAutoLock, LetsOneThreadInAtATime) {
    constexpr int threadCount = 4;
    constexpr int rounds = 5000;
    Mutex mutex("Test");
    int guarded = 0;
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&] {
            for (int round = 0; round < rounds; ++round) {
                const MutexAutoLock lock(mutex);
                ++guarded;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(guarded, threadCount * rounds);
}

}  // namespace

}  // namespace kelto::osa
