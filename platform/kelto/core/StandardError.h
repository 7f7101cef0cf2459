#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kelto::core {

/**
 * Standard error, as the place that records go to. One for the process; any thread and any signal handler may write.
 *
 * Whoever reads a pipe or a socket may be slow, stand still or be gone, and none of that is the writer's affair: a line
 * that finds no room is given up, and a reader that has gone costs nothing but the lines. Files and terminals are
 * written as they always are.
 *
 * - A pipe is opened anew as a description of our own, which alone does not wait: O_NONBLOCK on the inherited one would
 *   change it for everybody who shares it, the shell for instance. The commands that the process starts inherit our
 *   own, so they are not held up either. Where it may not be opened (it is another user's, or there is no /proc), each
 *   line goes in pieces that a pipe takes whole, and only when it has room.
 * - A socket cannot be opened anew, but each send may say that it does not wait.
 * - SIGPIPE, which would end the process when the reader has gone, is caught and not ignored: the commands that the
 *   process starts have its default back. Where it is not at its default already it stays as it is.
 */
class StandardError {
public:
    /** Looks at what standard error is, and prepares it as above. */
    StandardError();

    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

    /**
     * Writes a text by one system call if there is room for all of it. If there is not, waits a tenth of a second at
     * most for a reader that is only slow. Once it has done so in vain it waits no more until something could be
     * written again, and not within a second: a reader that stands still costs that time once.
     *
     * @return how many of its bytes found room; all of them where nobody would have read them: what fails for another
     * reason is lost
     */
    size_t Write(std::string_view text);

private:
    enum class Kind { File, Pipe, ForeignPipe, Socket };

    static Kind Prepare();
    ssize_t TryToWrite(std::string_view text) const;
    bool WaitForRoom(int64_t& deadlineMs);

    const Kind kind;
    std::atomic<bool> waitedInVain = false;
    /** On the monotonic clock. */
    std::atomic<int64_t> nextWaitMs = 0;
};

}  // namespace kelto::core
