#include "tests/support/FatMount.h"

#include <sys/mount.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace kelto::test {

FatMount::FatMount(std::string mountPoint, const std::string& imagePath) : path(std::move(mountPoint)) {
    if (std::system(("/sbin/mkfs.vfat -C " + imagePath + " 2048 > /dev/null").c_str()) != 0) {
        throw std::runtime_error("no FAT image (package dosfstools)");
    }
    mounted = std::system(("mount -o loop " + imagePath + " " + path + " 2> /dev/null").c_str()) == 0;
}

FatMount::~FatMount() {
    if (mounted) {
        umount2(path.c_str(), MNT_DETACH);
    }
}

}  // namespace kelto::test
