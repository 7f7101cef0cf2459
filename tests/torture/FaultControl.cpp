#include "FaultControl.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
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

namespace {

/**
 * What the driver and this library share: a file that both have mapped; faults.py has the same layout. The driver fills
 * everything in before it sets `watching`, and clears that before it changes anything. So there is no lock, and no
 * thread of the daemon ever waits here.
 */
struct Control {
    std::atomic<uint32_t> watching;                // 0: nothing is counted, nothing fails
    uint32_t failing;                              // the FaultyCall that fails, CallNone to count only
    uint32_t first;                                // the first of its calls that fails, from 1
    uint32_t last;                                 // the last one
    int32_t error;                                 // errno then
    std::atomic<uint32_t> injected;                // how many have failed
    std::atomic<int64_t> steadySkew;               // nanoseconds
    std::atomic<int64_t> realSkew;                 // nanoseconds
    std::array<char, 16> thread;                   // only calls of threads of this name count, of all if it is empty
    std::array<std::atomic<uint32_t>, 32> counts;  // by FaultyCall, since the driver has set them to 0
    std::array<char, 2048> place;  // the callers of the call that failed last, one "module+offset" a line
};

static_assert(std::atomic<uint32_t>::is_always_lock_free);
static_assert(CallCount <= 32);
static_assert(offsetof(Control, place) == 6 * 4 + 2 * 8 + 16 + 32 * 4);

constexpr const char* controlVariable = "HALVEK_FAULTS";
constexpr size_t mostCallers = 24;

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

/** Who called, the nearest first. */
class Callers {
public:
    Callers() : count(backtrace(addresses.data(), mostCallers)) {}

    /** That library ends the process when it gets no memory, and says so in its manual: no caller can help there. */
    bool AreInMailLibrary() const {
        Dl_info info{};
        for (int i = 0; i < count; ++i) {
            if (dladdr(addresses.at(static_cast<size_t>(i)), &info) == 0) {
                continue;
            }
            for (const char* const library : {"/libglib", "/libgobject", "/libgmime", "/libgio"}) {
                if (std::strstr(info.dli_fname, library) != nullptr) {
                    return true;
                }
            }
        }
        return false;
    }

    template <size_t size>
    void Print(std::array<char, size>& text) const {
        size_t used = 0;
        for (int i = 0; i < count && used < size; ++i) {
            Dl_info info{};
            const auto* const address = static_cast<const char*>(addresses.at(static_cast<size_t>(i)));
            if (dladdr(address, &info) != 0) {
                const ptrdiff_t offset = address - static_cast<const char*>(info.dli_fbase);
                used += static_cast<size_t>(
                    std::snprintf(text.data() + used, size - used, "%s+0x%tx\n", info.dli_fname, offset));
            }
        }
    }

private:
    std::array<void*, mostCallers> addresses{};
    int count;
};

bool IsWatchedThread() {
    if (control->thread[0] == '\0') {
        return true;
    }
    std::array<char, 16> name{};
    prctl(PR_GET_NAME, name.data());
    return name == control->thread;
}

bool Decide(FaultyCall call) {
    if (!IsWatchedThread() || (call == CallAllocate && Callers().AreInMailLibrary())) {
        return false;
    }
    const uint32_t number = ++control->counts.at(call);
    if (control->failing != call || number < control->first || number > control->last) {
        return false;
    }
    Callers().Print(control->place);
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
