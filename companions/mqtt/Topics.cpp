#include "companions/mqtt/Topics.h"

#include <utility>

namespace kelto::halvek::mqtt {

namespace {

/** Not isalnum: what a letter is must not depend on anything. */
bool StandsForItself(char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
           byte == '.' || byte == '_' || byte == '-';
}

}  // namespace

Topics::Topics(std::string prefix, std::string name) : id(std::move(name)), base(std::move(prefix) + "/" + id + "/") {}

std::string Topics::Level(std::string_view text) {
    constexpr const char* digits = "0123456789ABCDEF";
    std::string level;
    level.reserve(text.size());
    for (const char byte : text) {
        if (StandsForItself(byte)) {
            level.push_back(byte);
        } else {
            const auto number = static_cast<unsigned char>(byte);
            level.append({'%', digits[number >> 4U], digits[number & 0xfU]});
        }
    }
    return level;
}

std::optional<std::string> Topics::Alarm(std::string_view bank, std::string_view index) const {
    return Fitting(base + "alarm/" + Level(bank) + "/" + Level(index));
}

std::optional<std::string_view> Topics::PostedLevel(std::string_view topic) const {
    const std::string front = base + "post/";
    return topic.starts_with(front) ? std::optional(topic.substr(front.size())) : std::nullopt;
}

std::optional<std::string> Topics::Fitting(std::string topic) {
    return topic.size() <= longest ? std::optional(std::move(topic)) : std::nullopt;
}

}  // namespace kelto::halvek::mqtt
