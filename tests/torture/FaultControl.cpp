#include "FaultControl.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <tuple>

namespace {

/** One way to a call: all its callers, as one number whose last bits are the FaultyCall. 0 is nobody's. */
using SiteKey = uint32_t;
constexpr SiteKey callBits = 31;

struct Site {
    std::atomic<SiteKey> key;
    std::atomic<uint32_t> count;  // since the driver has set it to 0
};

/**
 * What the driver and this library share: a file that both have mapped; faults.py has the same layout. The driver fills
 * everything in before it sets `watching`, and clears that before it changes anything. So there is no lock, and no
 * thread of the daemon ever waits here.
 */
struct Control {
    std::atomic<uint32_t> watching;   // 0: nothing is counted, nothing fails
    SiteKey failing;                  // the site whose calls fail, 0 to count only
    uint32_t number;                  // which of them fails, from 1
    int32_t error;                    // errno then
    std::atomic<uint32_t> injected;   // how many have failed
    std::atomic<int64_t> steadySkew;  // nanoseconds
    std::atomic<int64_t> realSkew;    // nanoseconds
    std::array<char, 16> thread;      // only calls of threads of this name count, of all if it is empty
    std::array<char, 4096> place;     // the callers of the call that failed last, one "module+offset" a line
    std::array<Site, 8192> sites;     // wherever there was room, from the place on that the key says
};

static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(CallCount <= callBits + 1);
static_assert(offsetof(Control, place) == 5 * 4 + 4 + 2 * 8 + 16);
static_assert(offsetof(Control, sites) == offsetof(Control, place) + 4096);

constexpr const char* controlVariable = "HALVEK_FAULTS";
constexpr size_t mostCallers = 48;

Control* control = nullptr;
// What is called on the way to a failure fails no more.
thread_local bool inside = false;

class Inside {
public:
    Inside() { inside = true; }
    ~Inside() { inside = false; }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;
};

/** Where a program or a library lies in memory; its name is empty for the program itself. */
struct Module {
    const char* name;
    uintptr_t base;
};

/** A look-up without a lock; nothing for what is in no module. */
bool FindModule(void* address, Module& module) {
    dl_find_object found{};
    if (_dl_find_object(address, &found) != 0) {
        return false;
    }
    module = {found.dlfo_link_map->l_name, found.dlfo_link_map->l_addr};
    return true;
}

/** Who called, the nearest first. */
class Callers {
public:
    Callers() : count(backtrace(addresses.data(), mostCallers)) {}

    /** That library ends the process when it gets no memory, and says so in its manual: no caller can help there. */
    bool AreInMailLibrary() const {
        return Any([](const Module& module, uintptr_t) {
            for (const char* const library : {"/libglib", "/libgobject", "/libgmime", "/libgio"}) {
                if (std::strstr(module.name, library) != nullptr) {
                    return true;
                }
            }
            return false;
        });
    }

    /** The same in every process of the same program, wherever it lies in memory. */
    SiteKey KeyOf(FaultyCall call) const {
        uint64_t hash = 14695981039346656037U;
        const auto add = [&hash](uint64_t value) { hash = (hash ^ value) * 1099511628211U; };
        Any([&](const Module& module, uintptr_t offset) {
            for (const char* letter = module.name; *letter != '\0'; ++letter) {
                add(static_cast<unsigned char>(*letter));
            }
            add(offset);
            return false;
        });
        return (static_cast<SiteKey>(hash >> 32U) & ~callBits) | call;
    }

    template <size_t size>
    void Print(std::array<char, size>& text) const {
        size_t used = 0;
        Any([&](const Module& module, uintptr_t offset) {
            used += static_cast<size_t>(
                std::snprintf(text.data() + used, size - used, "%s+0x%zx\n", module.name, size_t{offset}));
            return used >= size;
        });
    }

private:
    /** Whether it is true for any of them, given where it is; the others behind it are not asked. */
    template <typename Predicate>
    bool Any(Predicate predicate) const {
        Module module{};
        for (int i = 0; i < count; ++i) {
            void* const address = addresses.at(static_cast<size_t>(i));
            if (FindModule(address, module) && predicate(module, reinterpret_cast<uintptr_t>(address) - module.base)) {
                return true;
            }
        }
        return false;
    }

    std::array<void*, mostCallers> addresses{};
    int count;
};

/** Counts one call of a site; gives its number. Without room for another site it is 0. */
uint32_t Count(SiteKey key) {
    constexpr size_t size = std::tuple_size_v<decltype(Control::sites)>;
    for (size_t i = 0; i < size; ++i) {
        Site& site = control->sites.at((key / (callBits + 1) + i) % size);
        SiteKey found = 0;
        if (site.key.compare_exchange_strong(found, key) || found == key) {
            return ++site.count;
        }
    }
    return 0;
}

bool IsWatchedThread() {
    if (control->thread[0] == '\0') {
        return true;
    }
    std::array<char, 16> name{};
    prctl(PR_GET_NAME, name.data());
    return name == control->thread;
}

bool Decide(FaultyCall call) {
    if (!IsWatchedThread()) {
        return false;
    }
    const Callers callers;
    if (call == CallAllocate && callers.AreInMailLibrary()) {
        return false;
    }
    const SiteKey key = callers.KeyOf(call);
    const uint32_t number = Count(key);
    if (control->failing != key || number != control->number) {
        return false;
    }
    callers.Print(control->place);
    ++control->injected;
    return true;
}

/** Before main. The commands that the daemon starts are not tortured. */
[[gnu::constructor]] void TakeControl() {
    const Inside here;
    unsetenv("LD_PRELOAD");
    const char* const path = std::getenv(controlVariable);
    if (path == nullptr) {
        return;
    }
    const auto fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
    // As the system takes it: the function that everybody calls is one of those that are made to fail.
    const long memory = syscall(SYS_mmap, nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    syscall(SYS_close, fd);
    // The first look at who called loads a library.
    static_cast<void>(Callers().AreInMailLibrary());
    if (memory != -1) {
        control = reinterpret_cast<Control*>(memory);
    }
}

}  // namespace

bool FaultFails(FaultyCall call) {
    if (control == nullptr || inside || call == CallNone || control->watching.load(std::memory_order_acquire) == 0) {
        return false;
    }
    const Inside here;
    const int savedErrno = errno;
    const bool fails = Decide(call);
    errno = fails ? control->error : savedErrno;
    return fails;
}

int64_t FaultSkew(int clock) {
    if (control == nullptr || (clock != CLOCK_MONOTONIC && clock != CLOCK_REALTIME)) {
        return 0;
    }
    return clock == CLOCK_MONOTONIC ? control->steadySkew : control->realSkew;
}
