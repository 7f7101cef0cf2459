/*
 * The functions of the C library between the daemon and the system, in front of the real ones: each asks whether it is
 * to fail, and otherwise hands on. They get into the daemon by LD_PRELOAD.
 *
 * What the C library calls inside itself does not come through here. So the functions that open, start or map something
 * on somebody's behalf stand here too: opendir, fopen, popen, system, dlopen.
 */
#include "FaultControl.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

/* The function of that name behind this library. */
#define REAL(result, name, ...)                   \
    static result (*real)(__VA_ARGS__) = NULL;    \
    if (real == NULL) {                           \
        *(void**)&real = dlsym(RTLD_NEXT, #name); \
    }

/* A function that returns `failure` with errno set when it fails; arguments in brackets. */
#define FAULTY(call, failure, result, name, parameters, arguments) \
    result name parameters {                                       \
        static result(*real) parameters = NULL;                    \
        if (real == NULL) {                                        \
            *(void**)&real = dlsym(RTLD_NEXT, #name);              \
        }                                                          \
        return FaultFails(call) ? (failure) : real arguments;      \
    }

/* Those that open take a mode only if they may make a file. */
#define FAULTY_OPEN(name, parameters, arguments)           \
    int name parameters {                                  \
        REAL(int, name, OPEN_TYPES)                        \
        mode_t mode = 0;                                   \
        if ((flags & (O_CREAT | __O_TMPFILE)) != 0) {      \
            va_list rest;                                  \
            va_start(rest, flags);                         \
            mode = va_arg(rest, mode_t);                   \
            va_end(rest);                                  \
        }                                                  \
        return FaultFails(CallOpen) ? -1 : real arguments; \
    }

#define OPEN_TYPES const char*, int, ...
FAULTY_OPEN(open, (const char* path, int flags, ...), (path, flags, mode))
FAULTY_OPEN(open64, (const char* path, int flags, ...), (path, flags, mode))
#undef OPEN_TYPES
#define OPEN_TYPES int, const char*, int, ...
FAULTY_OPEN(openat, (int folder, const char* path, int flags, ...), (folder, path, flags, mode))
FAULTY_OPEN(openat64, (int folder, const char* path, int flags, ...), (folder, path, flags, mode))
#undef OPEN_TYPES
FAULTY(CallOpen, -1, int, __open64_2, (const char* path, int flags), (path, flags))
FAULTY(CallOpen, -1, int, __openat64_2, (int folder, const char* path, int flags), (folder, path, flags))
FAULTY(CallOpen, NULL, void*, opendir, (const char* path), (path))
FAULTY(CallOpen, NULL, FILE*, fopen, (const char* path, const char* mode), (path, mode))
FAULTY(CallOpen, NULL, FILE*, fopen64, (const char* path, const char* mode), (path, mode))

FAULTY(CallRead, -1, ssize_t, read, (int fd, void* data, size_t size), (fd, data, size))
FAULTY(CallRead, -1, ssize_t, readv, (int fd, const struct iovec* parts, int count), (fd, parts, count))

/* The bytes of the event pipe are read by it. No system call has more than six arguments. */
long syscall(long number, ...) {
    REAL(long, syscall, long, ...)
    long arguments[6];
    va_list rest;
    va_start(rest, number);
    for (size_t i = 0; i < sizeof(arguments) / sizeof(arguments[0]); ++i) {
        arguments[i] = va_arg(rest, long);
    }
    va_end(rest);
    if (number == SYS_read && FaultFails(CallRead)) {
        return -1;
    }
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

/* What only counts how often it was written to never refuses a write, so that its writers need not be ready for one. */
static unsigned char counters[1024];

static enum FaultyCall WriteTo(int fd) {
    if (fd >= 0 && (size_t)fd < sizeof(counters) && counters[fd] != 0) {
        return CallNone;
    }
    return fd == STDERR_FILENO ? CallLog : CallWrite;
}

FAULTY(WriteTo(fd), -1, ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
FAULTY(WriteTo(fd), -1, ssize_t, writev, (int fd, const struct iovec* parts, int count), (fd, parts, count))

/* The descriptor is gone in any case, as with the system's own. */
int close(int fd) {
    REAL(int, close, int)
    if (fd >= 0 && (size_t)fd < sizeof(counters)) {
        counters[fd] = 0;
    }
    const int result = real(fd);
    return FaultFails(CallClose) ? -1 : result;
}

FAULTY(CallSpawn, NULL, FILE*, popen, (const char* command, const char* mode), (command, mode))
/* As when the system lets it start no shell. */
FAULTY(CallSpawn, 127 << 8, int, system, (const char* command), (command))
FAULTY(CallSpawn, -1, pid_t, fork, (void), ())

FAULTY(CallPipe, -1, int, pipe, (int ends[2]), (ends))
FAULTY(CallPipe, -1, int, pipe2, (int ends[2], int flags), (ends, flags))
int eventfd(unsigned int count, int flags) {
    REAL(int, eventfd, unsigned int, int)
    const int fd = FaultFails(CallPipe) ? -1 : real(count, flags);
    if (fd >= 0 && (size_t)fd < sizeof(counters)) {
        counters[fd] = 1;
    }
    return fd;
}

FAULTY(CallMap, (void*)-1, void*, mmap, (void* at, size_t size, int access, int flags, int fd, off_t offset),
       (at, size, access, flags, fd, offset))
FAULTY(CallMap, (void*)-1, void*, mmap64, (void* at, size_t size, int access, int flags, int fd, off_t offset),
       (at, size, access, flags, fd, offset))
FAULTY(CallMap, NULL, void*, dlopen, (const char* name, int flags), (name, flags))

FAULTY(CallSocket, -1, int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAULTY(CallConnect, -1, int, connect, (int fd, const struct sockaddr* address, socklen_t size), (fd, address, size))
FAULTY(CallSend, -1, ssize_t, sendmsg, (int fd, const struct msghdr* message, int flags), (fd, message, flags))
FAULTY(CallSend, -1, ssize_t, send, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags))
FAULTY(CallReceive, -1, ssize_t, recvmsg, (int fd, struct msghdr* message, int flags), (fd, message, flags))
FAULTY(CallReceive, -1, ssize_t, recv, (int fd, void* data, size_t size, int flags), (fd, data, size, flags))

FAULTY(CallPoll, -1, int, poll, (struct pollfd * fds, nfds_t count, int limit), (fds, count, limit))
FAULTY(CallPoll, -1, int, ppoll,
       (struct pollfd * fds, nfds_t count, const struct timespec* limit, const sigset_t* mask),
       (fds, count, limit, mask))
FAULTY(CallPoll, -1, int, select, (int count, fd_set* reading, fd_set* writing, fd_set* others, struct timeval* limit),
       (count, reading, writing, others, limit))

FAULTY(CallRename, -1, int, rename, (const char* from, const char* to), (from, to))
FAULTY(CallRename, -1, int, renameat2,
       (int fromFolder, const char* from, int toFolder, const char* to, unsigned int flags),
       (fromFolder, from, toFolder, to, flags))
FAULTY(CallMakeNode, -1, int, mkdir, (const char* path, mode_t mode), (path, mode))
FAULTY(CallMakeNode, -1, int, mkfifo, (const char* path, mode_t mode), (path, mode))
FAULTY(CallRemove, -1, int, unlink, (const char* path), (path))
FAULTY(CallRemove, -1, int, remove, (const char* path), (path))
FAULTY(CallSync, -1, int, fsync, (int fd), (fd))

/* It returns the error. */
FAULTY(CallThread, errno, int, pthread_create,
       (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
       (thread, attributes, body, argument))

FAULTY(CallStatus, -1, int, stat64, (const char* path, struct stat64* status), (path, status))
FAULTY(CallStatus, -1, int, lstat64, (const char* path, struct stat64* status), (path, status))
FAULTY(CallStatus, -1, int, fstat64, (int fd, struct stat64* status), (fd, status))

#ifndef HALVEK_SANITIZED
/* A sanitizer has an allocator of its own, see FaultyNew.cpp. The real ones by their inner names: whoever looked them
 * up would allocate. */
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) {
    return FaultFails(CallAllocate) ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return FaultFails(CallAllocate) ? NULL : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
    return FaultFails(CallAllocate) ? NULL : __libc_realloc(memory, size);
}
#endif

/* Clocks that the driver sets. */

static struct timespec Shifted(struct timespec time, int64_t nanoseconds) {
    const int64_t second = 1000000000;
    const int64_t sum = (int64_t)time.tv_sec * second + time.tv_nsec + nanoseconds;
    return (struct timespec){(time_t)(sum / second), (long)(sum % second)};
}

int clock_gettime(clockid_t clock, struct timespec* now) {
    REAL(int, clock_gettime, clockid_t, struct timespec*)
    const int result = real(clock, now);
    *now = Shifted(*now, FaultSkew(clock));
    return result;
}

time_t time(time_t* result) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    if (result != NULL) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}

/* In slices, so that a clock that is set forward is noticed. */
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const struct timespec* deadline) {
    REAL(int, pthread_cond_clockwait, pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*)
    const int64_t slice = 5000000;
    struct timespec now;
    clock_gettime(clock, &now);
    const struct timespec next = Shifted(now, slice);
    const bool isNear =
        deadline->tv_sec < next.tv_sec || (deadline->tv_sec == next.tv_sec && deadline->tv_nsec <= next.tv_nsec);
    const struct timespec real_deadline = Shifted(isNear ? *deadline : next, -FaultSkew(clock));
    const int result = real(condition, mutex, clock, &real_deadline);
    /* The end of a slice is a waking without a reason, which every caller copes with. */
    return isNear ? result : 0;
}
