#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace kelto::msgbus {

/** A message from the bus as a plain value: it holds nothing of the connection that it came by, so any thread may own
 * it. */
struct MsgBusMsg {
    /** An argument. An array or a structure is the sequence of its members. */
    struct Value;
    using Values = std::vector<Value>;
    struct Value {
        std::variant<bool, int32_t, int64_t, double, std::string, Values> content;
    };

    std::string name;
    std::string domain;
    std::string signature;
    /** What it takes in memory, about, in bytes. */
    size_t size = 0;
    Values arguments;
};

}  // namespace kelto::msgbus
