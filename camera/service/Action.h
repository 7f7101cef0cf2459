#pragma once

#include <cstdint>
#include <string>

namespace kelto::vcam {

/** A call that a provider was asked to carry out. */
struct Action {
    uint64_t time;  ///< microseconds on the monotonic clock
    std::string method;
    std::string arguments;
};

}  // namespace kelto::vcam
