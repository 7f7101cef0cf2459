#include "source/FdInputBuffer.h"

#include <unistd.h>

namespace kelto::halvek::source {

FdInputBuffer::FdInputBuffer(int descriptor) : fd(descriptor) {
    setg(buffer.data(), buffer.data(), buffer.data());
}

FdInputBuffer::int_type FdInputBuffer::underflow() {
    if (gptr() < egptr()) {
        return traits_type::to_int_type(*gptr());
    }
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count <= 0) {
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
    while (TakeByte(piece[length])) {
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

/** Takes the byte that an underflow has left, or the next one from the descriptor. */
inline bool FdInputBuffer::TakeByte(char& byte) {
    if (gptr() == egptr()) {
        return read(fd, &byte, 1) > 0;
    }
    byte = *gptr();
    gbump(1);
    return true;
}

}  // namespace kelto::halvek::source
