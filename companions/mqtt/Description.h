#pragma once

#include "companions/mqtt/CameraFacts.h"
#include "companions/mqtt/EventQueue.h"
#include "companions/mqtt/Message.h"
#include "companions/mqtt/Settings.h"
#include "companions/mqtt/Topics.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kelto::halvek::mqtt {

/**
 * Tells home automation, over one connection, what the camera has: once, and again when there is more of it. What an
 * earlier description has named and is there no longer is taken back. One thread.
 */
class Description {
public:
    using Milliseconds = std::chrono::milliseconds;

    /** Between two descriptions of the camera. */
    static constexpr Milliseconds pause{5000};

    /**
     * All of these must live as long as this does.
     *
     * @param described the components that home automation was given, over this connection and those before
     */
    Description(const Settings& settings, const CameraFacts& facts, const EventQueue& queue, const Topics& topics,
                std::set<std::string>& described);

    /** Notes what an earlier run has left at the broker. */
    void TakeLeft(const ReceivedMessage& message);

    bool IsDue() const;
    /** When there is something new to tell; nothing while there is not. */
    std::optional<Milliseconds> NextAt() const;
    /** Makes it due, whether or not it is new. */
    void Repeat() { toldAt.reset(); }

    /** The messages that tell it, for somebody who sends them one behind the other. */
    std::vector<Message> Tell();

private:
    CameraFacts Known() const;

    // Constant after construction.
    const Settings& settings;
    const CameraFacts& facts;
    const EventQueue& queue;
    const Topics& topics;

    std::set<std::string>& described;
    /** Components of a description that an earlier run has left at the broker. */
    std::set<std::string> left;
    /** What had been seen when it was told. */
    uint64_t toldVersion = 0;
    std::optional<Milliseconds> toldAt;
};

}  // namespace kelto::halvek::mqtt
