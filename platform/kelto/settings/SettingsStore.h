#pragma once

#include "kelto/core/IniFile.h"

#include <string>
#include <vector>

namespace kelto::settings {

/**
 * The camera's settings on disk: the ini file, or the folder of "*.ini" files, that the environment's KELTO_SETTINGS
 * names, by default "/etc/kelto/settings". In a folder the files are read in byte order of their names and a later one
 * wins key by key.
 */
class SettingsStore {
public:
    struct File {
        std::string path;
        std::string text;
    };

    /**
     * Reads the whole store afresh.
     *
     * @throws kelto::osa::Exception naming the path and the reason if anything of it cannot be read
     */
    static core::IniFile Load() { return Parse(Read()); }

    /**
     * The first half of Load. Throws as it does.
     *
     * A file that changes in size, time or inode while it is read is read again after a moment, three times at most.
     */
    static std::vector<File> Read();

    /** The second half of Load. Throws kelto::osa::Exception naming the file and the line that is malformed. */
    static core::IniFile Parse(const std::vector<File>& files);

    /**
     * Whether the store consists of exactly these files and texts now. Reads them all, so it is as fresh as Read, but
     * keeps nothing. Only regular files are looked at: from a pipe it would take what the next Read needs.
     * A store that cannot be read is another one. Throws std::bad_alloc only.
     */
    static bool Holds(const std::vector<File>& files);
};

}  // namespace kelto::settings
