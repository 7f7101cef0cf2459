#pragma once

#include "kelto/msgbus/IMessageHandler.h"
#include "kelto/msgbus/MsgBusMsg.h"
#include "tests/support/WaitUntil.h"

#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kelto::msgbus {

/** A message handler that keeps what it is given and then does what a test wants. */
class HeardMessages : public IMessageHandler {
public:
    explicit HeardMessages(std::function<void(const MsgBusMsg&)> furtherAction = nullptr)
        : action(std::move(furtherAction)) {}

    void HandleMessage(const MsgBusMsg& message) override {
        {
            const std::lock_guard lock(mutex);
            messages.push_back(message);
        }
        if (action) {
            action(message);
        }
    }

    std::vector<MsgBusMsg> Messages() const {
        const std::lock_guard lock(mutex);
        return messages;
    }

    size_t Count() const {
        const std::lock_guard lock(mutex);
        return messages.size();
    }

    /** The first argument of each message, which must be a text. */
    std::vector<std::string> Texts() const {
        std::vector<std::string> texts;
        for (const MsgBusMsg& message : Messages()) {
            texts.push_back(std::get<std::string>(message.arguments.at(0).content));
        }
        return texts;
    }

    /** Waits until so many messages have come; false if they did not within the deadline. */
    bool WaitForCount(size_t count) const {
        return test::WaitUntil([&] { return Count() >= count; });
    }

private:
    const std::function<void(const MsgBusMsg&)> action;
    mutable std::mutex mutex;
    std::vector<MsgBusMsg> messages;
};

}  // namespace kelto::msgbus
