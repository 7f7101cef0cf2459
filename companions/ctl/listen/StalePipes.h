#pragma once

#include <string>

namespace kelto::halvek::ctl {

/** Output pipes of processes that have gone without removing them. */
class StalePipes {
public:
    /** The name of a pipe of this process: "zz-watch.4711". */
    static std::string OwnName(const std::string& purpose);

    /** Removes those that name a process which is no longer there, or is another program by now, as far as this user
     * may. */
    static void Remove(const std::string& purpose);
};

}  // namespace kelto::halvek::ctl
