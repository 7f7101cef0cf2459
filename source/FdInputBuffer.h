#pragma once

#include <array>
#include <streambuf>

namespace kelto::halvek::source {

/**
 * A stream buffer over a descriptor that it does not own.
 *
 * It reads one byte a refill, and that is its point. The event server makes a fresh stream for every event and drops it
 * at the event's last line; whatever a larger buffer had taken from the pipe beyond that line, the beginning of the
 * next event, would be lost with it. So a line read takes exactly the bytes up to its newline out of the pipe.
 *
 * For one thread. On a non-blocking descriptor an empty pipe is the end of the stream.
 */
class FdInputBuffer : public std::streambuf {
public:
    explicit FdInputBuffer(int descriptor);
    ~FdInputBuffer() override = default;
    FdInputBuffer(const FdInputBuffer&) = delete;
    FdInputBuffer& operator=(const FdInputBuffer&) = delete;

protected:
    int_type underflow() override;

private:
    std::array<char, 1> buffer{};
    const int fd;
};

}  // namespace kelto::halvek::source
