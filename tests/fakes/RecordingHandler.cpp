#include "tests/fakes/RecordingHandler.h"

#include "tests/support/WaitUntil.h"

namespace kelto::test {

void RecordingHandler::PerformAction(halvek::Event& event) {
    {
        const auto now = std::chrono::steady_clock::now();
        const std::lock_guard lock(mutex);
        events.push_back({event.ToString(), event.GetPriority(), event.GetProperties(), now});
    }
    if (action) {
        action(event);
    }
}

std::vector<ReceivedEvent> RecordingHandler::Events() const {
    const std::lock_guard lock(mutex);
    return events;
}

size_t RecordingHandler::Count() const {
    const std::lock_guard lock(mutex);
    return events.size();
}

bool RecordingHandler::WaitForCount(size_t count) const {
    return WaitUntil([&] { return Count() >= count; });
}

}  // namespace kelto::test
