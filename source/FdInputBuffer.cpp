#include "source/FdInputBuffer.h"

#include <unistd.h>

namespace kelto::halvek::source {

FdInputBuffer::FdInputBuffer(int descriptor) : fd(descriptor) {
    setg(buffer.data(), buffer.data(), buffer.data());
}

FdInputBuffer::int_type FdInputBuffer::underflow() {
    if (gptr() == egptr() && !Refill()) {
        return traits_type::eof();
    }
    return traits_type::to_int_type(*gptr());
}

LineFound FdInputBuffer::ReadLine(std::string& line, size_t longest) {
    line.clear();
    while (gptr() < egptr() || Refill()) {
        const char byte = *gptr();
        gbump(1);
        if (byte == '\n') {
            return LineFound::Whole;
        }
        if (line.size() == longest) {
            return LineFound::TooLong;
        }
        line.push_back(byte);
    }
    return line.empty() ? LineFound::None : LineFound::Whole;
}

bool FdInputBuffer::Refill() {
    const ssize_t count = read(fd, buffer.data(), buffer.size());
    if (count <= 0) {
        return false;
    }
    setg(buffer.data(), buffer.data(), buffer.data() + 1);
    return true;
}

}  // namespace kelto::halvek::source
