#pragma once

#include <string>
#include <string_view>

namespace kelto::inet {

/** A text as it may stand in a mail: line feeds as line ends, and no line begins with ".". */
struct EncodedText {
    std::string data;
    bool isQuotedPrintable;
};

/**
 * Makes a text fit for a mail: as it stands if it is ASCII in lines that any mail server takes, else quoted-printable.
 * Every kind of line end becomes a line feed; nothing else of the text changes for its reader.
 *
 * Done here, for the mail library leaves a "." at the beginning of a line, and makes lines longer than its own limit.
 */
EncodedText EncodeText(std::string_view text);

}  // namespace kelto::inet
