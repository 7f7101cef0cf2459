#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>

namespace kelto::halvek::mqtt {

/** What a payload is. */
enum class Content { Text, Json, Jpeg };

/** Something to be published. A plain value. */
struct Message {
    std::string topic;
    std::string payload;
    int qos = 1;
    bool isRetained = false;
    /** Said where the protocol has a word for it. */
    Content content = Content::Text;
    /** How long the broker keeps it for those who are away, where the protocol has a word for it. */
    std::optional<std::chrono::seconds> expiry;

    /** What the broker keeps, for those who ask later. Without a payload it forgets what it has. */
    static Message State(std::string topic, std::string payload, Content content = Content::Text) {
        return {std::move(topic), std::move(payload), 1, true, content, std::nullopt};
    }
};

/** Something that was published by somebody else. */
struct ReceivedMessage {
    std::string topic;
    std::string payload;
    bool isRetained = false;
};

}  // namespace kelto::halvek::mqtt
