#pragma once

#include "kelto/core/IniFile.h"

namespace kelto::settings {

/**
 * The camera's settings on disk: the ini file, or the folder of "*.ini" files, that the environment's KELTO_SETTINGS
 * names, by default "/etc/kelto/settings". In a folder the files are read in byte order of their names and a later one
 * wins key by key.
 */
class SettingsStore {
public:
    /**
     * Reads the whole store afresh.
     *
     * @throws kelto::osa::Exception naming the path and the reason if anything of it cannot be read
     */
    static core::IniFile Load();
};

}  // namespace kelto::settings
