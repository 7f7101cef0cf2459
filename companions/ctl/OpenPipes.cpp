#include "companions/ctl/OpenPipes.h"

#include <dirent.h>

#include <memory>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

std::vector<std::string> NamesIn(const std::string& folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(opendir(folder.c_str()), closedir);
    while (const dirent* const entry = listing == nullptr ? nullptr : readdir(listing.get())) {
        if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

}  // namespace

bool OpenPipes::IsOpen(const struct stat& pipe) {
    for (const std::string& process : NamesIn("/proc")) {
        const std::string folder = "/proc/" + process + "/fd/";
        for (const std::string& descriptor : NamesIn(folder)) {
            struct stat theirs {};
            if (stat((folder + descriptor).c_str(), &theirs) == 0 && theirs.st_dev == pipe.st_dev &&
                theirs.st_ino == pipe.st_ino) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace kelto::halvek::ctl
