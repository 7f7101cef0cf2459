#pragma once

#include <string>
#include <vector>

namespace kelto::vcam {

/** What the virtual camera was asked for when it was started. */
struct CommandLine {
    enum class Wish { Run, Command, Help, Version };

    /** Throws Failure. */
    CommandLine(int argc, char** argv);

    /** What --help prints. */
    static const char* Help();

    Wish wish = Wish::Run;
    std::string snapshotPath = "/tmp/snapshot/img2.jpg";
    std::vector<std::string> command;  ///< with all that belongs to it
};

}  // namespace kelto::vcam
