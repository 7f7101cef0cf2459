#pragma once

#include <string>

namespace kelto::test {

/**
 * Covers a folder with an empty memory file system for the length of a scope. Only the calling thread sees it: the
 * first one moves the thread to a mount namespace of its own.
 */
class MemoryMount {
public:
    /** @param mountOptions "size=64k" for instance */
    explicit MemoryMount(std::string mountPoint, const std::string& mountOptions = "");
    ~MemoryMount();
    MemoryMount(const MemoryMount&) = delete;
    MemoryMount& operator=(const MemoryMount&) = delete;

    /** Lets nobody write there any more. */
    void MakeReadOnly();

    /** Undoes that. */
    void MakeWritable();

private:
    std::string path;
};

}  // namespace kelto::test
