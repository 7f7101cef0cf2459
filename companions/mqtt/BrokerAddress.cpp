#include "companions/mqtt/BrokerAddress.h"

#include <algorithm>
#include <charconv>

namespace kelto::halvek::mqtt {

namespace {

constexpr std::string_view plainScheme = "mqtt://";
constexpr std::string_view tlsScheme = "mqtts://";
constexpr int plainPort = 1883;
constexpr int tlsPort = 8883;

bool IsHostCharacter(char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9') ||
           byte == '.' || byte == '-' || byte == '_' || byte == ':' || byte == '%';
}

std::optional<int> Port(std::string_view text, int ordinary) {
    if (text.empty()) {
        return ordinary;
    }
    int port = 0;
    const auto [end, error] = std::from_chars(text.data() + 1, text.data() + text.size(), port);
    const bool isNumber = text.front() == ':' && error == std::errc() && end == text.data() + text.size();
    return isNumber && port > 0 && port < 65536 ? std::optional(port) : std::nullopt;
}

}  // namespace

std::optional<BrokerAddress> BrokerAddress::Parse(std::string_view url) {
    BrokerAddress address;
    address.usesTls = url.starts_with(tlsScheme);
    if (!address.usesTls && !url.starts_with(plainScheme)) {
        return std::nullopt;
    }
    url.remove_prefix(address.usesTls ? tlsScheme.size() : plainScheme.size());
    std::string_view rest;
    if (url.starts_with('[')) {
        const size_t end = url.find(']');
        if (end == std::string_view::npos) {
            return std::nullopt;
        }
        address.host = url.substr(1, end - 1);
        rest = url.substr(end + 1);
    } else {
        const size_t end = std::min(url.find(':'), url.size());
        address.host = url.substr(0, end);
        rest = url.substr(end);
    }
    const std::optional<int> port = Port(rest, address.usesTls ? tlsPort : plainPort);
    if (!port || address.host.empty() || !std::all_of(address.host.begin(), address.host.end(), IsHostCharacter)) {
        return std::nullopt;
    }
    address.port = *port;
    return address;
}

std::string BrokerAddress::Text() const {
    const bool isBracketed = host.find(':') != std::string::npos;
    return std::string(usesTls ? tlsScheme : plainScheme) + (isBracketed ? "[" + host + "]" : host) + ":" +
           std::to_string(port);
}

}  // namespace kelto::halvek::mqtt
