/*
 * The calls by which halvek-outbox changes files, in front of the real ones: they are counted, and one of them kills
 * the process, before or after it is done, or fails. So does the clock what the test tells it to. Loaded by LD_PRELOAD.
 *
 * Only the calls of the first thread are counted: it alone writes files, one after the other, so that each has the same
 * number every time.
 */
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/timex.h>
#include <time.h>
#include <unistd.h>

enum Mode { ModeCount, ModeKillBefore, ModeKillAfter, ModeFail };

/* What the test and this library share: a file that both have mapped; spool_calls.py has the same layout. */
struct Control {
    uint32_t watching; /* 0: nothing is counted */
    uint32_t mode;
    uint32_t number; /* of the call that is hit, from 1 */
    int32_t error;   /* errno of one that fails */
    uint32_t count;
    uint32_t isSynced; /* whether the clock is */
    uint32_t syncMs;   /* how long a file takes to reach the medium */
    uint32_t round;    /* changed by the test: each thread that looks at the steady clock then counts as one looker */
    int64_t bootSkew;  /* milliseconds that the clocks are ahead */
    int64_t realSkew;
    int64_t steadySkew; /* of the clock by which the library for transfers measures */
    uint32_t lookers;   /* threads but the first */
    uint32_t isHurried; /* whether these threads look at the clock all the time */
};

static const int hurriedMs = 10;

static struct Control* control = NULL;

__attribute__((constructor)) static void TakeControl(void) {
    const char* const path = getenv("HALVEK_SPOOL_CALLS_CONTROL");
    unsetenv("LD_PRELOAD");
    const int fd = path == NULL ? -1 : open(path, O_RDWR | O_CLOEXEC);
    void* const memory = mmap(NULL, sizeof(struct Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory != MAP_FAILED) {
        control = memory;
    }
    close(fd);
}

static void Kill(void) {
    kill(getpid(), SIGKILL);
    for (;;) {
        pause();
    }
}

/* Whether a call is the one. It may be the last of this process. */
static bool Begin(bool concerns) {
    const bool isHit = concerns && control != NULL && control->watching != 0 && gettid() == getpid() &&
                       ++control->count == control->number;
    if (isHit && control->mode == ModeKillBefore) {
        Kill();
    }
    return isHit;
}

static bool Fails(bool isHit) {
    if (isHit && control->mode == ModeFail) {
        errno = control->error;
        return true;
    }
    return false;
}

static void End(bool isHit) {
    if (isHit && control->mode == ModeKillAfter) {
        Kill();
    }
}

static bool IsFile(int fd) {
    struct stat status;
    return fd != STDERR_FILENO && fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

/* The function of that name behind this library. */
#define REAL(result, name, ...)                   \
    static result (*real)(__VA_ARGS__) = NULL;    \
    if (real == NULL) {                           \
        *(void**)&real = dlsym(RTLD_NEXT, #name); \
    }

/* A function that returns -1 with errno set when it fails; types and arguments in brackets. */
#define COUNTED(concerns, result, name, types, parameters, arguments) \
    result name parameters {                                          \
        static result(*real) types = NULL;                            \
        if (real == NULL) {                                           \
            *(void**)&real = dlsym(RTLD_NEXT, #name);                 \
        }                                                             \
        const bool isHit = Begin(concerns);                           \
        const result value = Fails(isHit) ? -1 : real arguments;      \
        End(isHit);                                                   \
        return value;                                                 \
    }

COUNTED(IsFile(fd), ssize_t, write, (int, const void*, size_t), (int fd, const void* data, size_t size),
        (fd, data, size))
COUNTED(true, ssize_t, pwrite64, (int, const void*, size_t, off_t),
        (int fd, const void* data, size_t size, off_t offset), (fd, data, size, offset))
COUNTED(true, int, ftruncate64, (int, off_t), (int fd, off_t size), (fd, size))
COUNTED(true, int, rename, (const char*, const char*), (const char* from, const char* to), (from, to))
COUNTED(true, int, unlink, (const char*), (const char* path), (path))
COUNTED(true, int, mkdir, (const char*, mode_t), (const char* path, mode_t mode), (path, mode))

int open64(const char* path, int flags, ...) {
    REAL(int, open64, const char*, int, ...)
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    const bool isHit = Begin((flags & O_CREAT) != 0);
    const int fd = Fails(isHit) ? -1 : real(path, flags, mode);
    End(isHit);
    return fd;
}

int fsync(int fd) {
    REAL(int, fsync, int)
    const bool isHit = Begin(true);
    if (control != NULL && control->syncMs != 0) {
        const struct timespec time = {control->syncMs / 1000, (long)(control->syncMs % 1000) * 1000000};
        nanosleep(&time, NULL);
    }
    const int result = Fails(isHit) ? -1 : real(fd);
    End(isHit);
    return result;
}

static int64_t SkewOf(clockid_t clock) {
    if (control == NULL) {
        return 0;
    }
    switch (clock) {
        case CLOCK_BOOTTIME:
            return control->bootSkew;
        case CLOCK_REALTIME:
            return control->realSkew;
        case CLOCK_MONOTONIC:
            return control->steadySkew;
        default:
            return 0;
    }
}

/* Tells the test that this thread knows what time it is. */
static void CountLooker(void) {
    static _Thread_local uint32_t lastRound = 0;
    if (control != NULL && control->round != lastRound && gettid() != getpid()) {
        lastRound = control->round;
        __atomic_add_fetch(&control->lookers, 1, __ATOMIC_RELAXED);
    }
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    REAL(int, clock_gettime, clockid_t, struct timespec*)
    if (clock == CLOCK_MONOTONIC) {
        CountLooker();
    }
    const int result = real(clock, now);
    const int64_t ms = (int64_t)now->tv_sec * 1000 + now->tv_nsec / 1000000 + SkewOf(clock);
    if (SkewOf(clock) != 0) {
        *now = (struct timespec){ms / 1000, (long)(ms % 1000) * 1000000};
    }
    return result;
}

int poll(struct pollfd* polled, nfds_t count, int timeoutMs) {
    REAL(int, poll, struct pollfd*, nfds_t, int)
    const bool isCut = control != NULL && control->isHurried != 0 && gettid() != getpid() && timeoutMs > hurriedMs;
    return real(polled, count, isCut ? hurriedMs : timeoutMs);
}

int adjtimex(struct timex* state) {
    REAL(int, adjtimex, struct timex*)
    const int result = real(state);
    if (control != NULL && control->isSynced != 0) {
        state->status &= ~STA_UNSYNC;
        return TIME_OK;
    }
    return result;
}
