/**
 * What ThreadSanitizer has to be told about the C library, linked into its builds only.
 *
 * It puts a caught signal off until the thread makes a call that it knows to block. It does not know select(): a thread
 * that waits there would sit on its signal for ever. It does know poll(), so select() is made of that here.
 */
#include <poll.h>
#include <sys/select.h>

#include <array>
#include <cerrno>

// tzset() and localtime_r() guard the time zone with a lock inside the C library that ThreadSanitizer does not see, and
// so takes the freeing of the old name of the zone for a race.
extern "C" const char* __tsan_default_suppressions() {
    return "race:tzset_internal\n";
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
