#pragma once

#include <map>
#include <string>

namespace kelto::companion {

/**
 * The daemon's settings, as far as a program beside it may read them. It is a look at them and no more: what the daemon
 * would refuse is taken as it stands, and what cannot be read is taken for empty. Any thread.
 */
class DaemonSettings {
public:
    /** By the name of the group, then by the key. */
    using Groups = std::map<std::string, std::map<std::string, std::string>>;

    /** Where the daemon reads them: KELTO_SETTINGS, else its default. */
    static std::string Path();

    /** Of a file, or of the files *.ini in a folder: of an entry that comes twice, the later one. */
    static Groups Read(const std::string& path);

    /** Empty if there is none. */
    static std::string ValueOf(const Groups& groups, const std::string& group, const std::string& key);
};

}  // namespace kelto::companion
