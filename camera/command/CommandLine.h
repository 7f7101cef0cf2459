#pragma once

#include <string>

namespace kelto::vcam {

/** What the virtual camera was asked for when it was started. */
struct CommandLine {
    enum class Wish { Run, Help, Version };

    /** Throws Failure. */
    CommandLine(int argc, char** argv);

    /** What --help prints. */
    static const char* Help();

    Wish wish = Wish::Run;
    std::string snapshotPath = "/tmp/snapshot/img2.jpg";
};

}  // namespace kelto::vcam
