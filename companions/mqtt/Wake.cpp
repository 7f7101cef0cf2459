#include "companions/mqtt/Wake.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace kelto::halvek::mqtt {

Wake::Wake() : event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void Wake::Set() {
    const uint64_t one = 1;
    // It fails only if it has been set as often as it can be.
    static_cast<void>(!write(event.Get(), &one, sizeof one));
}

void Wake::Clear() {
    uint64_t count = 0;
    static_cast<void>(!read(event.Get(), &count, sizeof count));
}

}  // namespace kelto::halvek::mqtt
