#include "companions/outbox/Courier.h"

#include <sys/eventfd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

namespace kelto::halvek::outbox {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds longestWait{1000};
constexpr milliseconds whileOthersWait{10};
/** One whose own server keeps it busy takes others along only where nobody else does. */
constexpr milliseconds patienceOfOthers{50};

}  // namespace

Courier::Courier(Mailbox& box, SharedOrders& others)
    : mailbox(box), shared(others), wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!wake.IsOpen()) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    thread = std::thread([this] { Work(); });
}

Courier::~Courier() {
    Retire();
    thread.join();
}

void Courier::Deliver(Order next) {
    {
        const std::lock_guard lock(mutex);
        order = std::move(next);
    }
    Wake();
}

void Courier::Wake() {
    eventfd_write(wake.Get(), 1);
}

void Courier::Retire() {
    {
        const std::lock_guard lock(mutex);
        isRetired = true;
    }
    Wake();
}

void Courier::Work() {
    {
        Trip trip(mailbox);
        while (TakeOrders(trip) || !trip.IsEmpty()) {
            trip.GoOn(wake.Get(), shared.IsEmpty() ? longestWait : whileOthersWait);
        }
    }
    hasEnded = true;
    mailbox.Wake();
}

/** False when no order comes any more. */
bool Courier::TakeOrders(Trip& trip) {
    eventfd_t count = 0;
    eventfd_read(wake.Get(), &count);
    std::unique_lock lock(mutex);
    std::optional<Order> own = std::exchange(order, std::nullopt);
    const bool isLast = isRetired;
    lock.unlock();
    if (own) {
        trip.Begin(*std::move(own));
    } else if (isLast) {
        return false;
    } else if (std::optional<Order> other = shared.Take(trip.IsQuiet() ? milliseconds(0) : patienceOfOthers)) {
        trip.TakeAlong(*std::move(other));
    }
    return true;
}

}  // namespace kelto::halvek::outbox
