#pragma once

#include "source/FdInputBuffer.h"

#include <cstddef>
#include <istream>
#include <string>

namespace kelto::halvek::source {

/** An input stream over a descriptor, which it neither owns nor closes. It takes no byte more than was asked for. */
class FdInputStream : public std::istream {
public:
    explicit FdInputStream(int descriptor);
    ~FdInputStream() override = default;
    FdInputStream(const FdInputStream&) = delete;
    FdInputStream& operator=(const FdInputStream&) = delete;

    /** Reads a line of at most so many bytes, past the stream's state. */
    LineFound ReadLine(std::string& line, size_t longest) { return buffer.ReadLine(line, longest); }

private:
    FdInputBuffer buffer;
};

}  // namespace kelto::halvek::source
