#pragma once

#include <chrono>
#include <optional>
#include <string>

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
};

/** Something that was published by somebody else. */
struct ReceivedMessage {
    std::string topic;
    std::string payload;
    bool isRetained = false;
};

}  // namespace kelto::halvek::mqtt
