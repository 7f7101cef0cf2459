#pragma once

#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/** What goes to standard output: kept until it is complete, so that a failure on the way leaves no half answer. */
class Answer {
public:
    void Add(std::string_view piece) { text.append(piece); }

    /** The text, and a line break. */
    void AddLine(std::string_view line) { text.append(line).push_back('\n'); }

    /** Writes what has been added. Throws Failure if standard output is closed or full, even if nothing was added. */
    void Flush();

private:
    std::string text;
};

}  // namespace kelto::halvek::ctl
