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

}  // namespace kelto::halvek::source
