/**
 * What ThreadSanitizer has to be told about the C library, linked into its builds only.
 *
 * It puts a caught signal off until the thread makes a call that it knows to block. It does not know select(): a thread
 * that waits there would sit on its signal for ever. It does know poll(), so select() is made of that here.
 */
#include <dlfcn.h>
#include <poll.h>
#include <sys/select.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <mutex>

namespace {

// The C library guards the time zone with a lock that ThreadSanitizer does not see, and so takes the freeing of the old
// name of the zone for a race. Here is one that it does see. A suppression would have to name a function, and there are
// no names for what goes on while no descriptor is left.
std::mutex zoneMutex;

template <typename Function>
Function* Real(Function* /*type*/, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" void tzset() noexcept {
    static auto* const real = Real(&tzset, "tzset");
    const std::lock_guard lock(zoneMutex);
    real();
}

extern "C" tm* localtime_r(const time_t* time, tm* local) noexcept {
    static auto* const real = Real(&localtime_r, "localtime_r");
    const std::lock_guard lock(zoneMutex);
    return real(time, local);
}

extern "C" size_t strftime(char* text, size_t size, const char* format, const tm* local) noexcept {
    static auto* const real = Real(&strftime, "strftime");
    const std::lock_guard lock(zoneMutex);
    return real(text, size, format, local);
}

extern "C" time_t mktime(tm* local) noexcept {
    static auto* const real = Real(&mktime, "mktime");
    const std::lock_guard lock(zoneMutex);
    return real(local);
}

extern "C" int select(int count, fd_set* readSet, fd_set* /*writeSet*/, fd_set* /*exceptSet*/, timeval* timeout) {
    std::array<pollfd, FD_SETSIZE> polled;
    nfds_t size = 0;
    for (int fd = 0; fd < count; ++fd) {
        if (FD_ISSET(fd, readSet)) {
            polled[size++] = {fd, POLLIN, 0};
        }
    }
    const auto wait = timeout == nullptr ? -1 : static_cast<int>(timeout->tv_sec * 1000 + timeout->tv_usec / 1000);
    const int ready = poll(polled.data(), size, wait);
    for (nfds_t i = 0; ready >= 0 && i < size; ++i) {
        if (polled[i].revents == 0) {
            FD_CLR(polled[i].fd, readSet);
        } else if ((polled[i].revents & POLLNVAL) != 0) {
            errno = EBADF;
            return -1;
        }
    }
    return ready;
}
