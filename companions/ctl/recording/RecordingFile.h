#pragma once

#include "companions/common/UniqueFd.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/**
 * A recording that never grows beyond its limit: when a file has half of it, it becomes FILE.1 in place of the one
 * before, and another begins. Flash wears by the write, so lines are kept until there are 64 KiB of them or they are a
 * minute old. One thread at a time.
 */
class RecordingFile {
public:
    using Clock = std::chrono::steady_clock;

    /**
     * Makes the file, which others cannot read.
     *
     * @throws Failure if it cannot be made, or holds something already
     */
    RecordingFile(std::string filePath, size_t mostBytes);

    /** Takes whole lines. Throws Failure as Flush does. */
    void Add(std::string_view lines);

    /** When what is kept must be written; nothing while nothing is. */
    std::chrono::milliseconds Left() const;
    bool HasPending() const { return !pending.empty(); }

    /** Writes what is kept. Throws Failure if there is no room. */
    void Flush();

    /** Writes, and returns when the medium has it. Throws Failure. */
    void Close();

private:
    void Open(int flags);
    void TurnOver();

    // Constant after construction.
    std::string path;
    size_t half;

    companion::UniqueFd file;
    size_t size = 0;
    std::string pending;
    Clock::time_point oldest;
};

}  // namespace kelto::halvek::ctl
