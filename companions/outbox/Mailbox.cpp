#include "companions/outbox/Mailbox.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace kelto::halvek::outbox {

Mailbox::Mailbox() : wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

void Mailbox::Put(Report report) {
    {
        const std::lock_guard lock(mutex);
        reports.push_back(std::move(report));
    }
    Wake();
}

void Mailbox::Wake() {
    eventfd_write(wake.Get(), 1);
}

std::vector<Report> Mailbox::TakeAll() {
    eventfd_t count = 0;
    eventfd_read(wake.Get(), &count);
    const std::lock_guard lock(mutex);
    return std::exchange(reports, {});
}

}  // namespace kelto::halvek::outbox
