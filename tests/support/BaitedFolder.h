#pragma once

#include "tests/support/TempDir.h"

#include <string>
#include <vector>

namespace kelto::test {

/**
 * A current folder for the length of a scope, full of what must not be removed: old files and older ones, with blanks,
 * quotes and line breaks in their names, links, folders.
 */
class BaitedFolder {
public:
    BaitedFolder();
    ~BaitedFolder();
    BaitedFolder(const BaitedFolder&) = delete;
    BaitedFolder& operator=(const BaitedFolder&) = delete;

    /** Puts another file there, of the first second of 1970: older than any other. A name with slashes makes the
     * folders to it. */
    void Add(const std::string& name);

    /** Everything that is there now, in byte order, links not followed. */
    std::vector<std::string> Now() const;

    /** Everything that was put there. */
    const std::vector<std::string>& Before() const { return before; }

    std::string PathOf(const std::string& name) const { return folder.PathOf(name); }

private:
    const TempDir folder;
    const std::string currentBefore;
    std::vector<std::string> before;
};

}  // namespace kelto::test
