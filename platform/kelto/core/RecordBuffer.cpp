#include "kelto/core/RecordBuffer.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kelto::core {

bool RecordBuffer::Grow(size_t newSize, size_t kept) {
    if (newSize <= size) {
        return true;
    }
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): it throws nothing, as nothing may that writes a record.
    std::unique_ptr<char, Freer> larger(static_cast<char*>(std::malloc(newSize)));
    if (!larger) {
        return false;
    }
    std::memcpy(larger.get(), Data(), kept);
    heap = std::move(larger);
    size = newSize;
    return true;
}

size_t RecordBuffer::Format(size_t begin, const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int written = std::vsnprintf(Data() + begin, size - begin, format, arguments);
    const size_t length = written > 0 ? static_cast<size_t>(written) : 0;
    if (begin + length >= size && Grow(begin + length + 1, begin)) {
        std::vsnprintf(Data() + begin, size - begin, format, again);
    }
    va_end(again);
    return std::min(begin + length, size - 1);
}

}  // namespace kelto::core
