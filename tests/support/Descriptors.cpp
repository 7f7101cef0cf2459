#include "tests/support/Descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace kelto::test {

namespace {

constexpr rlim_t room = 256;

struct DirectoryCloser {
    void operator()(DIR* directory) const { closedir(directory); }
};

void SetLimit(const rlimit& limit) {
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        throw std::runtime_error("cannot set the limit of descriptors to " + std::to_string(limit.rlim_cur));
    }
}

rlimit GetLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit;
}

}  // namespace

std::vector<int> OpenDescriptors() {
    const std::unique_ptr<DIR, DirectoryCloser> listing(opendir("/proc/self/fd"));
    std::vector<int> descriptors;
    while (const dirent* entry = readdir(listing.get())) {
        const int fd = std::atoi(entry->d_name);
        if (entry->d_name[0] != '.' && fd != dirfd(listing.get())) {
            descriptors.push_back(fd);
        }
    }
    std::sort(descriptors.begin(), descriptors.end());
    return descriptors;
}

std::vector<int> OpenDescriptorsOf(const std::string& path) {
    struct stat wanted {};
    if (stat(path.c_str(), &wanted) != 0) {
        throw std::runtime_error("there is no " + path);
    }
    std::vector<int> descriptors = OpenDescriptors();
    std::erase_if(descriptors, [&](int fd) {
        struct stat status {};
        return fstat(fd, &status) != 0 || status.st_dev != wanted.st_dev || status.st_ino != wanted.st_ino;
    });
    return descriptors;
}

LeftDescriptorsClosed::~LeftDescriptorsClosed() {
    for (const int fd : OpenDescriptors()) {
        if (!std::binary_search(openBefore.begin(), openBefore.end(), fd)) {
            close(fd);
        }
    }
}

LowDescriptorsTaken::LowDescriptorsTaken(int firstFree) : savedLimit(GetLimit()) {
    SetLimit({std::max<rlim_t>(savedLimit.rlim_cur, static_cast<rlim_t>(firstFree) + room), savedLimit.rlim_max});
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    while (fd >= 0 && fd < firstFree) {
        taken.push_back(fd);
        fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    }
    close(fd);
}

LowDescriptorsTaken::~LowDescriptorsTaken() {
    for (const int fd : taken) {
        close(fd);
    }
    setrlimit(RLIMIT_NOFILE, &savedLimit);
}

FewDescriptorsLeft::FewDescriptorsLeft(size_t left) : gaps(OpenDescriptors().back()), savedLimit(GetLimit()) {
    SetLimit({static_cast<rlim_t>(OpenDescriptors().back()) + 1 + left, savedLimit.rlim_max});
}

FewDescriptorsLeft::~FewDescriptorsLeft() {
    setrlimit(RLIMIT_NOFILE, &savedLimit);
}

}  // namespace kelto::test
