#pragma once

#include "companions/common/UniqueFd.h"

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion {

/**
 * The output pipe through which one program of ours hears every event: NAME.halvek.any.
 *
 * The daemon loses a descriptor for good with each event that does not fit into a pipe. So the pipe is made as large as
 * the system lets us, it is gone before its reader is, and whoever owns one reads it without ever waiting for anything
 * else. A pipe that an earlier process left behind is read out and replaced, so that what is torn in it can never
 * run into what comes. One thread at a time.
 */
class ListenerPipe {
public:
    static constexpr const char* defaultFolder = "/run/halvek";
    static constexpr int wantedCapacity = 1024 * 1024;
    /** How long the end may take: a writer that never closes the pipe is not waited for. */
    static constexpr std::chrono::milliseconds endPatience{2000};

    /**
     * Makes the pipe: for its owner and the folder's group, and nobody else.
     *
     * @param name without ".halvek.any"; begin it with "zz-", since the daemon serves pipes in byte order of their
     * names
     * @throws std::system_error that names the path
     */
    explicit ListenerPipe(const std::string& name, const std::string& folder = defaultFolder);
    ListenerPipe(const ListenerPipe&) = delete;
    ListenerPipe& operator=(const ListenerPipe&) = delete;
    /** Removes the pipe, if it is still the one that was made, and closes it then. */
    ~ListenerPipe();

    /** Readable when there is something to read. It never ends and never blocks. */
    int Descriptor() const { return pipe.Get(); }
    const std::string& Path() const { return path; }
    /** In bytes. */
    int Capacity() const { return capacity; }

    /** What an earlier process had not read: whole blocks, perhaps a torn one at the end. */
    const std::string& LeftOver() const { return leftOver; }

    /**
     * Reads what is there, 64 KiB at most; nothing if it is empty. The bytes are there until the next call.
     *
     * @throws std::system_error that names the path
     */
    std::string_view Read();

    /**
     * Removes the pipe, if it is still the one that was made, and reads the rest: what is in it, and what somebody
     * writes who had opened it before. To be called once, at the end.
     *
     * @throws std::system_error that names the path
     */
    void ReadToItsEnd(const std::function<void(std::string_view bytes)>& take);

private:
    UniqueFd OpenLeftOver() const;
    void MakeNew(const std::string& newPath);
    void Enlarge();
    void ReadOut(const UniqueFd& old);
    void Remove() const;
    bool IsInPlace() const;

    // Constant after construction.
    std::string path;
    UniqueFd pipe;
    int capacity = 0;
    std::string leftOver;

    std::vector<char> buffer;
};

}  // namespace kelto::companion
