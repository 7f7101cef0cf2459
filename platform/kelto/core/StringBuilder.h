#pragma once

#include <sstream>
#include <string>

namespace kelto::core {

/** Builds a text piece by piece, numbers in the standard stream format. One thread at a time. */
class StringBuilder {
public:
    StringBuilder() {
        // Of its own accord a stream that gets no memory says nothing, and the text would lack a piece.
        stream.exceptions(std::ios::badbit);
    }

    /** Throws what the piece's way of writing itself throws, std::bad_alloc among it. */
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
