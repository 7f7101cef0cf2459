#pragma once

#include <string>

namespace kelto::halvek::outbox {

/**
 * The program that a front end stands in front of: the next one of its name on PATH behind the front end's own folder.
 * What is before it may be somebody's script that starts the front end, and would do so again.
 */
class NextProgram {
public:
    /** Its path; empty if there is none. */
    static std::string Find(const std::string& name, const char* searchPath);

    /**
     * Becomes it, with the same words, and says so. It comes back only if there is none, or it cannot be run.
     *
     * @param why what the outbox did not do
     */
    static void Become(const std::string& name, char** words, const std::string& why);
};

}  // namespace kelto::halvek::outbox
