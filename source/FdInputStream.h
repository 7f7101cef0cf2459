#pragma once

#include "source/FdInputBuffer.h"

#include <istream>

namespace kelto::halvek::source {

/** An input stream over a descriptor, which it neither owns nor closes. It takes no byte more than was asked for. */
class FdInputStream : public std::istream {
public:
    explicit FdInputStream(int descriptor);
    ~FdInputStream() override = default;
    FdInputStream(const FdInputStream&) = delete;
    FdInputStream& operator=(const FdInputStream&) = delete;

private:
    FdInputBuffer buffer;
};

}  // namespace kelto::halvek::source
