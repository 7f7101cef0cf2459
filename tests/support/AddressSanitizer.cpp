/**
 * What AddressSanitizer expects of a 32-bit ARM kernel, linked into its builds for that processor only.
 *
 * Such a kernel keeps the last of the four gigabytes to itself, and the sanitizer has no marks for that one. The
 * emulator hands it out once everything below has been in use: a process that has started enough threads gets a stack
 * there, at which the sanitizer ends it. Here it is taken beforehand.
 */
#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr uintptr_t kernelBegin = 0xc0000000;
// From here on the emulated kernel has a page of its own.
constexpr uintptr_t kernelEnd = 0xffff0000;

[[gnu::constructor]] void TakeKernelArea() {
    auto* begin = reinterpret_cast<void*>(kernelBegin);
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED_NOREPLACE;
    if (mmap(begin, kernelEnd - kernelBegin, PROT_NONE, flags, -1, 0) != begin) {
        std::perror("cannot take the last gigabyte");
        std::abort();
    }
}

}  // namespace
