#pragma once

#include <string>

namespace kelto::test {

/**
 * Covers a folder with an empty FAT file system for the length of a scope, if this system can mount one: it takes a
 * kernel that knows FAT, a loop device, and root. The calling thread must have a mount namespace of its own already.
 */
class FatMount {
public:
    /** @param imagePath the image, a file that is not there yet */
    FatMount(std::string mountPoint, const std::string& imagePath);
    ~FatMount();
    FatMount(const FatMount&) = delete;
    FatMount& operator=(const FatMount&) = delete;

private:
    const std::string path;
    bool mounted = false;
};

}  // namespace kelto::test
