#pragma once

#include "companions/ctl/Model.h"

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** One line of a file of expectations: who acts on an event, and who does not. */
struct Expectation {
    unsigned line;
    EventQuestion event;
    /** Handler groups. */
    std::vector<std::string> acting;
    std::vector<std::string> notActing;

    /**
     * Reads "at 2026-11-23T09:15 Doorbell button=front => Handler#2 !Handler#1", one a line; blank lines and such that
     * begin with "#" or ";" do not count.
     *
     * @throws Failure if the file cannot be read, UsageError for a line that says something else
     */
    static std::vector<Expectation> ReadAll(const std::string& path, int64_t defaultTime);
};

/** An event as words name it: its type, then "key=value" for each property. Throws UsageError. */
EventQuestion ParseEvent(const std::vector<std::string>& words, int64_t time);

}  // namespace kelto::halvek::ctl
