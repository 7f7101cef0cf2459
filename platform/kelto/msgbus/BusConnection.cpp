#include "kelto/msgbus/BusConnection.h"

#include "kelto/osa/Exception.h"

#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kelto::msgbus {

namespace {

constexpr int mostWaitingMessages = 8;
constexpr int mostWaitingBytes = 4096;

}  // namespace

int CheckBusResult(int result, const char* what) {
    if (result < 0) {
        throw osa::Exception("%s: %s", what, std::strerror(-result));
    }
    return result;
}

BusConnection::BusConnection(Clock::time_point deadline, const Wait& wait) {
    sd_bus* opened = nullptr;
    CheckBusResult(sd_bus_open_system(&opened), "Cannot open the message bus");
    bus.reset(opened);
    WaitUntilReady(deadline, wait);
}

bool BusConnection::WaitForBus(sd_bus* bus, std::chrono::microseconds limit) {
    const int result = sd_bus_wait(bus, static_cast<uint64_t>(limit.count()));
    CheckBusResult(result == -EINTR ? 0 : result, "Cannot open the message bus");
    return true;
}

void BusConnection::WaitUntilReady(Clock::time_point deadline, const Wait& wait) {
    while (sd_bus_is_ready(bus.get()) <= 0) {
        const int progress = CheckBusResult(sd_bus_process(bus.get(), nullptr), "Cannot open the message bus");
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
        if (left.count() <= 0) {
            throw osa::Exception("Cannot open the message bus: %s", std::strerror(ETIMEDOUT));
        }
        if (progress == 0 && !wait(bus.get(), left)) {
            throw osa::Exception("Cannot open the message bus: %s", std::strerror(ECANCELED));
        }
    }
}

bool BusConnection::Drain() {
    for (int messages = 0; messages <= mostWaitingMessages; ++messages) {
        // libsystemd closes a connection by itself when the bus says what it cannot read, and gives no descriptor then.
        if (sd_bus_is_ready(bus.get()) <= 0) {
            return false;
        }
        // One poll is all that it costs while nothing has happened.
        pollfd descriptor{sd_bus_get_fd(bus.get()), POLLIN | POLLRDHUP, 0};
        uint64_t queued = 0;
        if (poll(&descriptor, 1, 0) == 0 && sd_bus_get_n_queued_read(bus.get(), &queued) >= 0 && queued == 0) {
            return true;
        }
        int bytes = 0;
        if ((descriptor.revents & ~POLLIN) != 0 || ioctl(descriptor.fd, FIONREAD, &bytes) < 0 ||
            bytes > mostWaitingBytes || sd_bus_process(bus.get(), nullptr) < 0) {
            return false;
        }
    }
    return false;
}

}  // namespace kelto::msgbus
