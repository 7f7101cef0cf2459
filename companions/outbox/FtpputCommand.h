#pragma once

#include "companions/outbox/ItemHeader.h"

#include <optional>
#include <string>

namespace kelto::halvek::outbox {

/** The command line of ftpput, read exactly as the applet does. A plain value. */
struct FtpputCommand {
    ItemHeader header;
    /** The local file; "-" is standard input. */
    std::string local;

    /** Nothing if the applet would have shown how it is used; what is wrong is on standard error then. */
    static std::optional<FtpputCommand> Parse(int argc, char** argv);

    static const char* Usage();
};

}  // namespace kelto::halvek::outbox
