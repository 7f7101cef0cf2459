#pragma once

#include <string>
#include <utility>

namespace kelto::companion {

class PostedEvent;

/**
 * The daemon's event pipe, for those who post. Each post opens it anew, so that it follows a pipe that was replaced,
 * and nothing here ever waits. Any thread, one at a time.
 */
class EventPipe {
public:
    /** Where it is unless the settings say otherwise. */
    static constexpr const char* defaultPath = "/var/run/halvek.pipe";

    enum class Outcome {
        /** It is in the pipe, whole. Whether the daemon still takes events out shows elsewhere. */
        Posted,
        /** There is nothing at the path, or no named pipe. */
        NoFifo,
        /** Nobody has the pipe open for reading: the daemon does not run, or not yet. */
        NobodyReads,
        /** There is no room for the whole block. */
        Full,
        NoPermission,
        /** Anything else. */
        Failed,
    };

    explicit EventPipe(std::string fifo) : path(std::move(fifo)) {}

    /** Posts an event with one write. Throws PostRefusal, see PostedEvent::Block, before the pipe is touched. */
    Outcome Post(const PostedEvent& event);

    /** Posts what PostedEvent::Block made. */
    Outcome PostBlock(const std::string& block);

    const std::string& Path() const { return path; }

    /** What came of the last post, for people: "nobody reads /var/run/halvek.pipe". */
    std::string Text() const;

private:
    Outcome TryToPost(const std::string& block);
    Outcome Told(Outcome result, int error);

    std::string path;
    Outcome last = Outcome::Posted;
    int lastError = 0;
};

}  // namespace kelto::companion
