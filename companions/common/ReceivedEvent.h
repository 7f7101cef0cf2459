#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::companion {

/** One event as the daemon passed it on. Its texts are UTF-8 and may hold any character but a line break. */
struct ReceivedEvent {
    using Properties = std::vector<std::pair<std::string, std::string>>;

    /** Never empty. */
    std::string type;
    /** In the order in which they came. No key comes twice. */
    Properties properties;
    /** Bytes that are no UTF-8 were replaced by U+FFFD. */
    bool isLossy = false;
    /** It was larger than a reader takes: what did not fit is missing. */
    bool isCut = false;
    /** It never ended: the next header closed it, or its time was over. */
    bool isUnfinished = false;
    /** It had waited in a pipe that an earlier process left behind. */
    bool isStale = false;

    /** The property's value; null if there is no such property. */
    const std::string* Find(std::string_view key) const {
        for (const auto& [name, value] : properties) {
            if (name == key) {
                return &value;
            }
        }
        return nullptr;
    }
};

}  // namespace kelto::companion
