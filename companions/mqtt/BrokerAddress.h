#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelto::halvek::mqtt {

/** Where a broker listens. A plain value. */
struct BrokerAddress {
    std::string host;
    int port = 0;
    bool usesTls = false;

    /**
     * Of mqtt://HOST[:PORT] or mqtts://HOST[:PORT]; the ports are 1883 and 8883 if none is given. An IPv6 address
     * stands in brackets. Nothing for anything else.
     */
    static std::optional<BrokerAddress> Parse(std::string_view url);

    /** As it is shown: scheme, host and port. */
    std::string Text() const;

    bool operator==(const BrokerAddress&) const = default;
};

}  // namespace kelto::halvek::mqtt
