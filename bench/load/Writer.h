#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

namespace kelto::halvek::bench {

class Channel;

/**
 * Writes a range of events on a thread of its own, whole ones within PIPE_BUF at a time.
 *
 * Never are more of them under way than the output pipe holds, so a reader that the system lets wait loses nothing.
 */
class Writer {
public:
    Writer(const Channel& usedChannel, uint64_t firstNumber, uint64_t endNumber);

    /** Gives up what is not written yet. */
    ~Writer();

    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    /** Tells it up to which number the events have come out. */
    void SetReceived(uint64_t number);

private:
    void Run(uint64_t number);
    void WaitForRoom(uint64_t number);
    void Write(const std::string& events);

    const Channel& channel;
    const uint64_t end;
    const uint64_t window;
    std::atomic<bool> givenUp = false;
    std::atomic<uint64_t> received;
    std::thread thread;
};

}  // namespace kelto::halvek::bench
