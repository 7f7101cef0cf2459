#include "companions/mqtt/EventQueue.h"

#include <gmock/gmock.h>
#include <poll.h>

#include <optional>
#include <string>

namespace kelto::halvek::mqtt {

namespace {

using kelto::companion::ReceivedEvent;
using Milliseconds = EventQueue::Milliseconds;

class EventQueueTest : public testing::Test {
protected:
    static QueuedEvent Door(uint64_t number, Milliseconds at = {}, size_t size = 1) {
        QueuedEvent event;
        event.event.type = "Door";
        event.event.properties = {{"filling", std::string(size, 'x')}};
        event.number = number;
        event.receivedAt = at;
        return event;
    }

    static QueuedEvent Alarm(uint64_t number, const std::string& index, bool isOn) {
        QueuedEvent event;
        event.event.type = "Alarm";
        event.event.properties = {{"alarmBank", "Local"}, {"alarmIndex", index}, {"alarmState", isOn ? "1" : "0"}};
        event.number = number;
        return event;
    }

    bool IsWoken() {
        pollfd polled{wake.Descriptor(), POLLIN, 0};
        const bool isSet = poll(&polled, 1, 0) == 1;
        wake.Clear();
        return isSet;
    }

    /** Everything that came is in the queue, given away or counted. */
    void ExpectNothingLost(uint64_t given) const {
        const Counters counters = queue.Count();
        EXPECT_EQ(counters.received, given + counters.droppedFull + counters.droppedOld + queue.Length());
    }

    Wake wake;
    EventQueue queue{wake, 3, Milliseconds(1000)};
};

const AlarmName input2("Local", "2");

TEST_F(EventQueueTest, WhatGoesInComesOutInItsOrder) {
    queue.Push(Door(1));
    queue.Push(Door(2));
    EXPECT_EQ(queue.Pop(Milliseconds(0))->number, 1U);
    EXPECT_EQ(queue.Pop(Milliseconds(0))->number, 2U);
    EXPECT_FALSE(queue.Pop(Milliseconds(0)));
    ExpectNothingLost(2);
}

TEST_F(EventQueueTest, TheOldestGivesWayAndIsCounted) {
    for (uint64_t number = 1; number <= 5; ++number) {
        queue.Push(Door(number));
    }
    EXPECT_EQ(queue.Count().droppedFull, 2U);
    EXPECT_EQ(queue.Pop(Milliseconds(0))->number, 3U);
    ExpectNothingLost(1);
}

TEST_F(EventQueueTest, LargeEventsGiveWayByTheirSize) {
    for (uint64_t number = 1; number <= 3; ++number) {
        queue.Push(Door(number, {}, EventQueue::mostBytes / 2 - 100));
    }
    EXPECT_EQ(queue.Count().droppedFull, 1U);
    queue.Push(Door(4, {}, EventQueue::mostBytes + 1));
    EXPECT_EQ(queue.Length(), 0U);
    EXPECT_EQ(queue.Count().droppedFull, 4U);
}

TEST_F(EventQueueTest, TheRoomOfWhatIsGoneIsFreeAgain) {
    for (uint64_t number = 1; number <= 100; ++number) {
        queue.Push(Door(number, {}, EventQueue::mostBytes - 100));
        ASSERT_EQ(queue.Pop(Milliseconds(0))->number, number);
    }
    EXPECT_EQ(queue.Count().droppedFull, 0U);
}

TEST_F(EventQueueTest, WhatIsTooOldIsDroppedAndCounted) {
    queue.Push(Door(1, Milliseconds(0)));
    queue.Push(Door(2, Milliseconds(500)));
    EXPECT_EQ(queue.Pop(Milliseconds(1001))->number, 2U);
    EXPECT_EQ(queue.Count().droppedOld, 1U);
    ExpectNothingLost(1);
}

TEST_F(EventQueueTest, WhatComesPushesTheOldOut) {
    queue.Push(Door(1, Milliseconds(0)));
    queue.Push(Door(2, Milliseconds(1001)));
    EXPECT_EQ(queue.Length(), 1U);
    EXPECT_EQ(queue.Count().droppedOld, 1U);
}

TEST_F(EventQueueTest, OnlyWhoHasAskedIsWokenAndOnlyOnce) {
    queue.Push(Door(1));
    EXPECT_FALSE(IsWoken());
    EXPECT_FALSE(queue.WaitForEvent());
    queue.Pop(Milliseconds(0));
    EXPECT_TRUE(queue.WaitForEvent());
    queue.Push(Door(2));
    EXPECT_TRUE(IsWoken());
    queue.Push(Door(3));
    EXPECT_FALSE(IsWoken());
}

TEST_F(EventQueueTest, SmallerLimitsDropWhatDoesNotFit) {
    queue.Push(Door(1));
    queue.Push(Door(2));
    queue.SetLimits(1, Milliseconds(1000));
    EXPECT_EQ(queue.Pop(Milliseconds(0))->number, 2U);
    EXPECT_EQ(queue.Count().droppedFull, 1U);
}

TEST_F(EventQueueTest, AnEventRemembersTheConnectionThatWasUp) {
    queue.Push(Door(1));
    queue.SetConnection(7);
    queue.Push(Door(2));
    EXPECT_EQ(queue.Pop(Milliseconds(0))->connection, 0U);
    EXPECT_EQ(queue.Pop(Milliseconds(0))->connection, 7U);
}

TEST_F(EventQueueTest, AStateIsNewsUntilItIsTold) {
    queue.Push(Alarm(1, "2", true));
    const uint64_t version = queue.Pop(Milliseconds(0))->alarmVersion;
    EXPECT_TRUE(queue.IsAlarmNews(input2, version));
    queue.MarkAlarmTold(input2, version);
    EXPECT_FALSE(queue.IsAlarmNews(input2, version));
}

TEST_F(EventQueueTest, AnOldStateIsNoNewsOnceAYoungerOneIsTold) {
    queue.Push(Alarm(1, "2", true));
    queue.Push(Alarm(2, "2", false));
    const uint64_t old = queue.Pop(Milliseconds(0))->alarmVersion;
    const AlarmState last = queue.Alarms().at(0);
    EXPECT_FALSE(last.isOn);
    queue.MarkAlarmTold(input2, last.version);
    EXPECT_FALSE(queue.IsAlarmNews(input2, old));
}

TEST_F(EventQueueTest, AStateWhoseEventIsDroppedIsOverdue) {
    queue.Push(Alarm(1, "2", true));
    EXPECT_FALSE(queue.OverdueAlarm());
    for (uint64_t number = 2; number <= 4; ++number) {
        queue.Push(Door(number));
    }
    const std::optional<AlarmState> overdue = queue.OverdueAlarm();
    ASSERT_TRUE(overdue);
    EXPECT_TRUE(overdue->isOn);
    queue.MarkAlarmTold(overdue->name, overdue->version);
    EXPECT_FALSE(queue.OverdueAlarm());
}

TEST_F(EventQueueTest, AStateThatAYoungerEventTellsIsNotOverdue) {
    queue.Push(Alarm(1, "2", true));
    queue.Push(Door(2));
    queue.Push(Door(3));
    queue.Push(Alarm(4, "2", false));
    EXPECT_FALSE(queue.OverdueAlarm());
}

TEST_F(EventQueueTest, AnAlarmThatAnEarlierProcessLeftTellsNoState) {
    QueuedEvent stale = Alarm(1, "2", true);
    stale.event.isStale = true;
    queue.Push(stale);
    EXPECT_TRUE(queue.Alarms().empty());
    EXPECT_EQ(queue.Count().stale, 1U);
}

TEST_F(EventQueueTest, WhatIsNoStateOfAnInputIsNoAlarm) {
    QueuedEvent odd = Alarm(1, "2", true);
    odd.event.properties[2].second = "2";
    queue.Push(odd);
    odd.event.properties.pop_back();
    queue.Push(odd);
    EXPECT_TRUE(queue.Alarms().empty());
}

TEST_F(EventQueueTest, ThereIsRoomForSoManyAlarmsAndNoMore) {
    for (uint64_t number = 0; number < 300; ++number) {
        queue.Push(Alarm(number, std::to_string(number), true));
    }
    EXPECT_EQ(queue.Alarms().size(), kelto::halvek::mqtt::AlarmStates::mostAlarms);
}

TEST_F(EventQueueTest, TypesThatWereSeenAreBoundedToo) {
    const uint64_t before = queue.SeenVersion();
    for (uint64_t number = 0; number < 300; ++number) {
        QueuedEvent event = Door(number);
        event.event.type = "Type" + std::to_string(number);
        queue.Push(event);
    }
    EXPECT_EQ(queue.SeenTypes().size(), EventQueue::mostTypes);
    EXPECT_EQ(queue.SeenVersion(), before + EventQueue::mostTypes);
}

}  // namespace

}  // namespace kelto::halvek::mqtt
