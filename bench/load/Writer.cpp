#include "bench/load/Writer.h"

#include "bench/load/Channel.h"

#include <algorithm>
#include <climits>

namespace kelto::halvek::bench {

namespace {

constexpr uint64_t eventsPerWrite = PIPE_BUF / eventSize;

}  // namespace

Writer::Writer(const Channel& usedChannel, uint64_t firstNumber, uint64_t endNumber)
    : channel(usedChannel),
      end(endNumber),
      window(usedChannel.OutputCapacity()),
      received(firstNumber),
      thread([this, firstNumber] { Run(firstNumber); }) {}

Writer::~Writer() {
    givenUp = true;
    SetReceived(end);
    thread.join();
}

void Writer::SetReceived(uint64_t number) {
    received = number;
    received.notify_one();
}

void Writer::Run(uint64_t number) {
    std::string events;
    while (number < end && !givenUp) {
        events.clear();
        for (const uint64_t next = std::min(number + eventsPerWrite, end); number < next; ++number) {
            AppendEvent(events, number);
        }
        WaitForRoom(number);
        Write(events);
    }
}

/** Waits until the output pipe has room for all events below the number. */
void Writer::WaitForRoom(uint64_t number) {
    for (uint64_t seen = received; number > seen + window; seen = received) {
        received.wait(seen);
    }
}

void Writer::Write(const std::string& events) {
    while (!channel.TryWrite(events) && !givenUp) {
    }
}

}  // namespace kelto::halvek::bench
