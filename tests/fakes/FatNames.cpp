#include "tests/fakes/FatNames.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

std::atomic<bool> refusing = false;

}  // namespace

// The program's own definition stands before the C library's.
extern "C" int rename(const char* from, const char* to) noexcept {
    if (refusing && std::strchr(to, ':') != nullptr) {
        errno = EINVAL;
        return -1;
    }
    return renameat(AT_FDCWD, from, AT_FDCWD, to);
}

namespace kelto::test {

FatNames::FatNames() {
    refusing = true;
}

FatNames::~FatNames() {
    refusing = false;
}

}  // namespace kelto::test
