#include "camera/service/ActionLog.h"

#include "camera/runtime/EventLoop.h"

namespace kelto::vcam {

namespace {

constexpr size_t capacity = 100'000;

}  // namespace

void ActionLog::Add(const std::string& method, const std::string& arguments) {
    if (actions.size() == capacity) {
        actions.pop_front();
    }
    actions.push_back({.time = EventLoop::Now(), .method = method, .arguments = arguments});
}

}  // namespace kelto::vcam
