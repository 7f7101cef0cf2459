#pragma once

#include <stdexcept>

namespace kelto::halvek::ctl {

/** Something that was asked for could not be done. Ends the program with exitFailed and the text as its message. */
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** The command line asks for what there is not. Ends the program with exitUsage and the text as its message. */
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace kelto::halvek::ctl
