#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::outbox {

/** What an item is, to whom it goes, and when it came. A plain value. */
struct ItemHeader {
    enum class Kind { Picture, Mail };

    Kind kind = Kind::Picture;

    // Pictures: where ftpput was told to put it.
    std::string host;
    uint16_t port = 21;
    std::string user;
    /** Empty where a target of the configuration has its own. */
    std::string password;
    /** The file's path on the server, as ftpput got it. */
    std::string remote;

    // Mails: the envelope.
    std::string sender;
    std::vector<std::string> recipients;

    /** When it was accepted: milliseconds since 1970, and whether that could be believed. */
    int64_t acceptedMs = 0;
    bool wasSynced = false;
    /** The boot in which it was accepted, and milliseconds since that. */
    std::string boot;
    int64_t uptimeMs = 0;

    /** As lines key=value, the last of which is the checksum of the others, and an empty one. */
    std::string Encode() const;

    /** Reads what Encode wrote, with its empty line or without. Nothing if it is damaged, or no header at all. */
    static std::optional<ItemHeader> Decode(std::string_view text);
};

}  // namespace kelto::halvek::outbox
