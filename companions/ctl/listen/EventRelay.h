#pragma once

#include "companions/common/ReceivedEvent.h"
#include "companions/common/UniqueFd.h"
#include "companions/ctl/listen/LineSource.h"
#include "companions/ctl/listen/ReadTime.h"

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/**
 * A process of its own that reads an output pipe and hands on lines.
 *
 * The daemon loses a descriptor for good with each event that finds a pipe full. So whoever has the pipe must go on
 * reading whatever becomes of the terminal, of the pager and of the disk behind standard output: it stands in a session
 * of its own, where no key stops it, has none of our standard streams, and waits for nobody. What its caller is too
 * slow to take it drops and counts. It goes when its caller goes, however that ends, and the pipe with it.
 *
 * For a process without other threads. One relay at a time.
 */
class EventRelay {
public:
    struct Job {
        /** See companion::ListenerPipe. */
        std::string pipeName;
        /** The text to hand on for an event, with its line break; an empty one if it is not wanted. */
        std::function<std::string(const companion::ReceivedEvent& event, const ReadTime& time)> line;
        /** Whether an event that is dropped would have been wanted. */
        std::function<bool(const companion::ReceivedEvent& event)> isMissed;
        /** The text in the place of so many events that were dropped, with its line break. */
        std::function<std::string(uint64_t count)> droppedLine;
        /** After so many events the pipe goes; 0 for no end. */
        uint64_t count = 0;
        /** Makes what is listened to beside the pipe; called in the relay's process, where it may start threads. */
        std::function<std::unique_ptr<LineSource>()> makeOther = {};
    };

    /** Bytes that wait for a caller who is slow, beside what the socket between the two holds. */
    static constexpr size_t mostWaiting = size_t{1} << 20U;

    /**
     * Starts it, and returns when the pipe is there. From now on a signal that would end this process, by the terminal
     * or by a reader who has gone, ends the relay first.
     *
     * @throws Failure if there can be no pipe
     */
    explicit EventRelay(const Job& job);
    ~EventRelay();
    EventRelay(const EventRelay&) = delete;
    EventRelay& operator=(const EventRelay&) = delete;

    /** Waits for what comes next, of any length. Empty at the end. The text is there until the next call. */
    std::string_view Read();

    /** Readable when Read has something. */
    int Descriptor() const { return socket.Get(); }

    /** Has it read the pipe empty once more and remove it. What it hands on then is followed by the end. */
    void StopReading();

    /** Has the relay end, and waits for that. True if it ended in good order, because of Job::count or because of this.
     */
    bool Finish();

    const std::string& PipePath() const { return pipePath; }

private:
    void Start(const Job& job);
    void WaitUntilReady();
    void RemovePipe() const;

    std::string pipePath;
    companion::UniqueFd socket;
    pid_t child = -1;
    std::array<char, 65536> buffer{};
};

}  // namespace kelto::halvek::ctl
