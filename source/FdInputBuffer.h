#pragma once

#include <array>
#include <cstddef>
#include <streambuf>
#include <string>

namespace kelto::halvek::source {

/** What a look for the next line has found. */
enum class LineFound {
    /** Nothing: the pipe is empty. */
    None,
    /** A line, or what there was of it when the pipe had no more. */
    Whole,
    /** A line that is longer than was asked for. */
    TooLong,
    /** The first bytes of such a line. The rest is still to be read. */
    Beginning,
};

/**
 * A stream buffer over a descriptor that it does not own.
 *
 * It reads one byte a refill, and that is its point. The event server drops its stream's state at an event's last line;
 * whatever a larger buffer had taken from the pipe beyond that line, the beginning of the next event, would be lost
 * with it. So a line read takes exactly the bytes up to its newline out of the pipe.
 *
 * For one thread. On a non-blocking descriptor an empty pipe is the end of the stream.
 */
class FdInputBuffer : public std::streambuf {
public:
    explicit FdInputBuffer(int descriptor);
    ~FdInputBuffer() override = default;
    FdInputBuffer(const FdInputBuffer&) = delete;
    FdInputBuffer& operator=(const FdInputBuffer&) = delete;

    /**
     * Reads a line as std::getline does, without its newline, but reads little more than `longest` bytes of a line that
     * is longer: a writer that sends no newline cannot make it grow.
     */
    LineFound ReadLine(std::string& line, size_t longest);

protected:
    int_type underflow() override;

private:
    bool ReadByte(char& byte) const;
    bool TakeLookedAt(char& byte);

    std::array<char, 1> buffer{};
    const int fd;
};

}  // namespace kelto::halvek::source
