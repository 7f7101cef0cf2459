#pragma once

#include <sys/stat.h>

namespace kelto::halvek::ctl {

/** Who has a named pipe open, as far as /proc shows it to us: our own processes, and all to root. */
class OpenPipes {
public:
    /** Whether a process has a pipe of that device and inode open. */
    static bool IsOpen(const struct stat& pipe);
};

}  // namespace kelto::halvek::ctl
