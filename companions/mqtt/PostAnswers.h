#pragma once

#include "companions/mqtt/EventQueue.h"
#include "companions/mqtt/Message.h"
#include "companions/mqtt/PostGate.h"
#include "companions/mqtt/Topics.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string_view>

namespace kelto::halvek::mqtt {

/** Hands what is posted over one connection to the gate, and keeps the answers until their turn comes. One thread. */
class PostAnswers {
public:
    /** Somebody who posts faster than the answers go out does not read them. */
    static constexpr size_t most = 64;

    /**
     * All of these must live as long as this does.
     *
     * @param answered how many posts have been answered, over this connection and those before
     */
    PostAnswers(const Topics& topics, PostGate& gate, EventQueue& queue, uint64_t& answered);

    /** @param level what stands behind "post/" in the message's topic */
    void Take(std::string_view level, const ReceivedMessage& message);

    /** The next answer. Nothing each second time, so that an event's turn comes between two of them. */
    std::optional<Message> Next();

private:
    // Constant after construction.
    const Topics& topics;
    PostGate& gate;
    EventQueue& queue;

    uint64_t& answered;
    std::deque<Message> answers;
    bool wasAnswer = false;
};

}  // namespace kelto::halvek::mqtt
