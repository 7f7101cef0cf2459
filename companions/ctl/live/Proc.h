#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** What the kernel tells of processes, as far as it tells this user. Any thread. */
class Proc {
public:
    /** The names in a folder, without those that begin with a dot, in byte order; nothing if it may not be listed. */
    static std::optional<std::vector<std::string>> Names(const std::string& folder);

    /** The numbers of all processes that can be seen, from the lowest on. */
    static std::vector<int> Processes();

    /** A file's content; nothing if it cannot be read. */
    static std::optional<std::string> Read(const std::string& path);

    /** Where a link leads to, as text; empty if it cannot be read. */
    static std::string Link(const std::string& path);

    /** "/proc/4711/fd". */
    static std::string Path(int pid, const std::string& name) { return "/proc/" + std::to_string(pid) + "/" + name; }

    /** The name of a process as the kernel has it, of 15 bytes at most; empty if it has gone. */
    static std::string Name(int pid);

    /** The value behind "Threads:" in a text like /proc/PID/status, without blanks around it; empty if there is none.
     */
    static std::string Field(const std::string& text, const std::string& name);
};

}  // namespace kelto::halvek::ctl
