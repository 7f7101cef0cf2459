#include "tests/support/BaitedFolder.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

namespace kelto::test {

namespace fs = std::filesystem;

BaitedFolder::BaitedFolder() : currentBefore(fs::current_path()) {
    fs::current_path(folder.GetPath());
    for (const char* name : {"a", "bait", "with a blank", "it's", "a\nline", "001.jpg", "-rf", "sub/bait", "sub/a"}) {
        Add(name);
    }
    fs::create_symlink(folder.PathOf("bait"), folder.PathOf("link"));
    fs::create_directory_symlink(folder.PathOf("sub"), folder.PathOf("linked"));
    before = Now();
}

BaitedFolder::~BaitedFolder() {
    fs::current_path(currentBefore);
}

void BaitedFolder::Add(const std::string& name) {
    fs::create_directories(fs::path(folder.PathOf(name)).parent_path());
    folder.Write(name, "bait");
    const timespec times[2] = {};
    utimensat(AT_FDCWD, folder.PathOf(name).c_str(), times, 0);
    before = Now();
}

std::vector<std::string> BaitedFolder::Now() const {
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder.GetPath())) {
        names.push_back(entry.path().string().substr(folder.GetPath().size() + 1));
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace kelto::test
