#pragma once

#include "companions/ctl/Answer.h"
#include "companions/ctl/ExitStatus.h"
#include "companions/ctl/Invocation.h"

#include <span>

namespace kelto::halvek::ctl {

/** Something that the program can be asked for. One constant row per verb. */
struct Verb {
    const char* name;
    /** The words and options that follow the name. */
    const char* operands;
    /** Half a line. */
    const char* summary;
    /** What "VERB --help" says behind the summary: the options, a line each. At most a screen. */
    const char* help;
    /** Puts the answer together. Throws UsageError and Failure, and kelto::osa::Exception as a Failure. */
    ExitStatus (*run)(const Invocation& invocation, Answer& answer);
};

/** All verbs, in the order in which they are listed. Constant, of static life. */
std::span<const Verb> Verbs();

}  // namespace kelto::halvek::ctl
