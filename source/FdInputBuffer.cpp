#include "source/FdInputBuffer.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace kelto::halvek::source {

FdInputBuffer::FdInputBuffer(int descriptor) : fd(descriptor) {
    setg(buffer.data(), buffer.data(), buffer.data());
}

/**
 * Past the C library's read, which opens and closes the thread to cancellation around every call. Nobody cancels a
 * thread here, and an event is read in as many calls as it has bytes.
 */
inline bool FdInputBuffer::ReadByte(char& byte) const {
    return syscall(SYS_read, fd, &byte, sizeof(byte)) > 0;
}

FdInputBuffer::int_type FdInputBuffer::underflow() {
    if (gptr() < egptr()) {
        return traits_type::to_int_type(*gptr());
    }
    if (!ReadByte(buffer.front())) {
        return traits_type::eof();
    }
    setg(buffer.data(), buffer.data(), buffer.data() + 1);
    return traits_type::to_int_type(buffer.front());
}

LineFound FdInputBuffer::ReadLine(std::string& line, size_t longest) {
    line.clear();
    // A string that grows by each byte of every event would cost more than reading them.
    std::array<char, 128> piece;
    size_t length = 0;
    for (bool taken = TakeLookedAt(piece[0]) || ReadByte(piece[0]); taken; taken = ReadByte(piece[length])) {
        if (piece[length] == '\n') {
            line.append(piece.data(), length);
            return line.size() > longest ? LineFound::TooLong : LineFound::Whole;
        }
        if (++length == piece.size()) {
            line.append(piece.data(), length);
            length = 0;
            if (line.size() > longest) {
                return LineFound::Beginning;
            }
        }
    }
    line.append(piece.data(), length);
    if (line.size() > longest) {
        return LineFound::TooLong;
    }
    return line.empty() ? LineFound::None : LineFound::Whole;
}

/** Takes the byte that an underflow has left. */
bool FdInputBuffer::TakeLookedAt(char& byte) {
    if (gptr() == egptr()) {
        return false;
    }
    byte = *gptr();
    gbump(1);
    return true;
}

}  // namespace kelto::halvek::source
