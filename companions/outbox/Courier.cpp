#include "companions/outbox/Courier.h"

#include "companions/outbox/Attempt.h"

#include <curl/curl.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <memory>
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

Courier::Courier(Mailbox& box) : mailbox(box), thread([this] { Work(); }) {}

Courier::~Courier() {
    Cancel();
    Retire();
    thread.join();
}

void Courier::Deliver(Order next) {
    current = next.id;
    isCancelled = false;
    {
        const std::lock_guard lock(mutex);
        order = std::move(next);
    }
    changed.notify_one();
}

void Courier::Retire() {
    {
        const std::lock_guard lock(mutex);
        isRetired = true;
    }
    changed.notify_one();
}

void Courier::Work() {
    {
        const std::unique_ptr<CURL, void (*)(CURL*)> handle(curl_easy_init(), curl_easy_cleanup);
        for (;;) {
            std::unique_lock lock(mutex);
            changed.wait(lock, [this] { return order.has_value() || isRetired; });
            if (!order) {
                break;
            }
            const Order wanted = *std::exchange(order, std::nullopt);
            lock.unlock();
            mailbox.Put({wanted.id, Attempt(handle.get(), wanted, isCancelled).Perform()});
        }
    }
    hasEnded = true;
    mailbox.Wake();
}

}  // namespace kelto::halvek::outbox
