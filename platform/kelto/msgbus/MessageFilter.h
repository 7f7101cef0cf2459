#pragma once

#include <string>

namespace kelto::msgbus {

/** Which signals a subscription wants. */
struct MessageFilter {
    /** The message's name: the signal's member. */
    std::string name;
    /** The message's domain: the signal's interface. */
    std::string domain;
    /** The bus name whose owner must have sent it; empty for anybody. */
    std::string sender;
    /** The object that it must come from; empty for any. */
    std::string path;

    bool operator==(const MessageFilter&) const = default;
    bool operator<(const MessageFilter& other) const;

    /** The match rule that asks the bus for these signals. */
    std::string ToMatchRule() const;
};

}  // namespace kelto::msgbus
