#include "app/RunDaemon.h"

#include "app/Application.h"
#include "kelto/core/Logger.h"

#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

namespace kelto::halvek {

namespace {

/**
 * Opens those of descriptors 0 to 2 that the starter has closed. The event pipe, or the pipe of the signal handler to
 * this process, would be given their numbers, and be written to by whatever writes to standard error.
 */
void OpenStandardDescriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) {
            // The lowest number that is free, which is this one.
            static_cast<void>(!open("/dev/null", O_RDWR));
        }
    }
}

/** A reader that takes nothing must not keep the end from the service manager. */
bool StandardErrorHasRoom() {
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    return poll(&standardError, 1, 0) > 0;
}

void NotifyReady() {
    const int result = sd_notify(0, "READY=1");
    if (result < 0) {
        core::Logger::GetLogger("halvek").Warning("The service manager cannot be told READY=1: %s",
                                                  std::strerror(-result));
    }
}

/** Where the start has failed for want of memory, the logger may be what there is none for. */
void WarnOfEnd(const std::exception& exception) {
    try {
        core::Logger::GetLogger("halvek").Warning("Error halvek Main: %s", exception.what());
    } catch (const std::bad_alloc&) {
        // Standard error is told the same.
    }
}

void RunApplication(int argc, char** argv, EventMonitor::SourceFactory createSource,
                    const std::function<void()>& whenReady) {
    Application application(argc, argv, std::move(createSource));
    NotifyReady();
    if (whenReady) {
        whenReady();
    }
    application.Run();
}

}  // namespace

int RunDaemon(int argc, char** argv, EventMonitor::SourceFactory createSource, const std::function<void()>& whenReady) {
    OpenStandardDescriptors();
    try {
        RunApplication(argc, argv, std::move(createSource), whenReady);
        core::Logger::Shutdown();
        return 0;
    } catch (const std::exception& exception) {
        WarnOfEnd(exception);
        if (StandardErrorHasRoom()) {
            std::fprintf(stderr, "Error halvek Main: %s\n", exception.what());
        }
    } catch (...) {
        if (StandardErrorHasRoom()) {
            std::fputs("Error halvek Main: unknown exception, doh!\n", stderr);
        }
    }
    sd_notify(0, "ERRNO=5");
    return 1;
}

}  // namespace kelto::halvek
