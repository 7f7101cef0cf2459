#pragma once

#include "handler/EventHandler.h"

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kelto::test {

/** What a handler was given, as a value. */
struct ReceivedEvent {
    std::string kind;
    int priority;
    halvek::Event::Properties properties;
    std::chrono::steady_clock::time_point time;  // at which it came
};

/** A real handler whose action notes the event down and then does what a test wants. Any number of threads may act. */
class RecordingHandler : public halvek::EventHandler {
public:
    using Action = std::function<void(halvek::Event&)>;

    explicit RecordingHandler(Action furtherAction = nullptr) : action(std::move(furtherAction)) {}

    bool IsConfigured() const override { return configured; }
    void PerformAction(halvek::Event& event) override;

    /** Has IsConfigured answer something else than true. */
    void SetConfigured(bool isConfigured) { configured = isConfigured; }

    std::vector<ReceivedEvent> Events() const;
    size_t Count() const;

    /** Waits until so many events have come; false if they did not within the deadline. */
    bool WaitForCount(size_t count) const;

private:
    const Action action;
    bool configured = true;
    mutable std::mutex mutex;
    std::vector<ReceivedEvent> events;
};

}  // namespace kelto::test
