#include "companions/outbox/SharedOrders.h"

#include <algorithm>
#include <utility>

namespace kelto::halvek::outbox {

void SharedOrders::Put(Order order) {
    const std::lock_guard lock(mutex);
    orders.push_back({std::move(order), Clock::now()});
}

std::optional<Order> SharedOrders::Take(std::chrono::milliseconds waited) {
    const std::lock_guard lock(mutex);
    if (orders.empty() || Clock::now() - orders.front().since < waited) {
        return std::nullopt;
    }
    std::optional<Order> first = std::move(orders.front().order);
    orders.pop_front();
    return first;
}

std::optional<Order> SharedOrders::Take(uint64_t id) {
    const std::lock_guard lock(mutex);
    const auto found =
        std::find_if(orders.begin(), orders.end(), [&](const Waiting& one) { return one.order.id == id; });
    if (found == orders.end()) {
        return std::nullopt;
    }
    std::optional<Order> order = std::move(found->order);
    orders.erase(found);
    return order;
}

bool SharedOrders::IsEmpty() {
    const std::lock_guard lock(mutex);
    return orders.empty();
}

}  // namespace kelto::halvek::outbox
