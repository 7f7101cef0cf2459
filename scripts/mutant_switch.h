// Included before everything else in a tree with mutants; see mutant_maker.py.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>

// All plain numbers and pointers, set before any other object is made: a switch is asked in signal handlers too.
inline constexpr int halvek_mutants_most = 200000;
inline int halvek_mutant = -1;
inline unsigned char halvek_mutants_nowhere[halvek_mutants_most];
inline unsigned char* halvek_mutants_reached = halvek_mutants_nowhere;

#define HALVEK_MUTANT(n) (halvek_mutants_reached[n] = 1, halvek_mutant == (n))

__attribute__((constructor(101))) inline void HalvekReadMutant() {
    static bool done = false;
    if (done) {
        return;
    }
    done = true;
    if (const char* const number = std::getenv("HALVEK_MUTANT")) {
        halvek_mutant = std::atoi(number);
    }
    const char* const path = std::getenv("HALVEK_MUTANTS_REACHED");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
        void* const map = mmap(nullptr, halvek_mutants_most, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        halvek_mutants_reached = map == MAP_FAILED ? halvek_mutants_nowhere : static_cast<unsigned char*>(map);
        close(fd);
    }
}
