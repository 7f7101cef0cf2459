#pragma once

#include <sstream>
#include <string>

namespace kelto::core {

/** Builds a text piece by piece, numbers in the standard stream format. One thread at a time. */
class StringBuilder {
public:
    template <typename Piece>
    StringBuilder& Append(const Piece& piece) {
        stream << piece;
        return *this;
    }

    std::string ToString() const { return stream.str(); }

private:
    std::ostringstream stream;
};

}  // namespace kelto::core
