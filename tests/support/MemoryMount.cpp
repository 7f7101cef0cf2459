#include "tests/support/MemoryMount.h"

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace kelto::test {

namespace {

void Check(bool good, const std::string& what) {
    if (!good) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

/** Nothing that this thread mounts from now on is seen elsewhere. */
void EnterMountNamespace() {
    thread_local bool entered = false;
    if (!entered) {
        Check(unshare(CLONE_NEWNS) == 0, "unshare");
        Check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
        entered = true;
    }
}

}  // namespace

MemoryMount::MemoryMount(std::string mountPoint, const std::string& mountOptions) : path(std::move(mountPoint)) {
    EnterMountNamespace();
    Check(mount("tmpfs", path.c_str(), "tmpfs", 0, mountOptions.c_str()) == 0, "mount on " + path);
}

MemoryMount::~MemoryMount() {
    umount2(path.c_str(), MNT_DETACH);
}

void MemoryMount::MakeReadOnly() {
    Check(mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0, "remount of " + path);
}

void MemoryMount::MakeWritable() {
    Check(mount(nullptr, path.c_str(), nullptr, MS_REMOUNT, nullptr) == 0, "remount of " + path);
}

}  // namespace kelto::test
