#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** What the daemon's user may do with files, told from owners and modes, whoever asks. A plain value. */
class DaemonUser {
public:
    /** The user of the running daemon, or the one of its package; without either whoever runs this. */
    static DaemonUser Find();

    /** Whether he may go all the way to a file and read it, write to it, or run it. */
    bool MayRead(const std::string& path) const { return May(path, 4); }
    bool MayWrite(const std::string& path) const { return May(path, 2); }
    bool MayRun(const std::string& path) const { return May(path, 1); }

    /** "halvek", or a number. */
    const std::string& Name() const { return name; }

private:
    bool May(const std::string& path, mode_t right) const;
    bool Has(const std::string& path, mode_t right) const;

    std::string name;
    uid_t uid = 0;
    std::vector<gid_t> groups;
};

}  // namespace kelto::halvek::ctl
