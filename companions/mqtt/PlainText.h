#pragma once

#include <string>
#include <string_view>

namespace kelto::halvek::mqtt {

/** How texts of others stand in what people read. Any thread. */
class PlainText {
public:
    /** The text with control characters, and bytes that are no UTF-8, written as "\x1b". */
    static std::string Escape(std::string_view text);
};

}  // namespace kelto::halvek::mqtt
