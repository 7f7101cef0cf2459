#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace kelto::core {

/**
 * Room for one record: up to a kilobyte in the object itself, which allocates nothing, and beyond that on the heap.
 *
 * Nothing throws. If there is no memory, the record is cut to what there is room for: who logs may be reporting just
 * that, and may be where nothing may be thrown.
 */
class RecordBuffer {
public:
    char* Data() { return heap ? heap.get() : own.data(); }
    size_t Size() const { return size; }
    std::string_view Text(size_t begin, size_t end) { return {Data() + begin, end - begin}; }

    /** Makes it at least that large; keeps the first bytes. False, and everything as it was, without memory for it. */
    bool Grow(size_t newSize, size_t kept);

    /** Formats a text behind the first bytes, as printf does. Returns where it ends. */
    size_t Format(size_t begin, const char* format, va_list arguments);

private:
    struct Freer {
        // NOLINTNEXTLINE(cppcoreguidelines-no-malloc)
        void operator()(char* memory) const { std::free(memory); }
    };

    static constexpr size_t ownSize = 1024;

    std::array<char, ownSize> own;
    std::unique_ptr<char, Freer> heap;
    size_t size = ownSize;
};

}  // namespace kelto::core
