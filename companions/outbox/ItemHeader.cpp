#include "companions/outbox/ItemHeader.h"

#include "companions/outbox/Crc32c.h"
#include "companions/outbox/FieldText.h"

#include <limits>

namespace kelto::halvek::outbox {

namespace {

constexpr std::string_view checksumKey = "header-crc";
constexpr std::string_view pictureWord = "picture";
constexpr std::string_view mailWord = "mail";

std::string ChecksumOf(std::string_view text) {
    Crc32c crc;
    crc.Add(text);
    return crc.Hex();
}

bool Take(int64_t& number, std::string_view value) {
    const std::optional<int64_t> read = FieldText::Number(value);
    number = read.value_or(0);
    return read.has_value();
}

bool TakePort(uint16_t& port, std::string_view value) {
    const std::optional<int64_t> read = FieldText::Number(value, std::numeric_limits<uint16_t>::max());
    port = static_cast<uint16_t>(read.value_or(0));
    return port != 0;
}

bool TakeKind(ItemHeader::Kind& kind, std::string_view value) {
    kind = value == mailWord ? ItemHeader::Kind::Mail : ItemHeader::Kind::Picture;
    return value == mailWord || value == pictureWord;
}

/** Keys of a later version are passed over. */
bool TakeField(ItemHeader& header, const std::string& key, const std::string& value) {
    if (key == "kind") {
        return TakeKind(header.kind, value);
    }
    if (key == "port") {
        return TakePort(header.port, value);
    }
    if (key == "accepted") {
        return Take(header.acceptedMs, value);
    }
    if (key == "uptime") {
        return Take(header.uptimeMs, value);
    }
    if (key == "synced") {
        header.wasSynced = value == "yes";
    } else if (key == "host") {
        header.host = value;
    } else if (key == "user") {
        header.user = value;
    } else if (key == "password") {
        header.password = value;
    } else if (key == "remote") {
        header.remote = value;
    } else if (key == "from") {
        header.sender = value;
    } else if (key == "to") {
        header.recipients.push_back(value);
    } else if (key == "boot") {
        header.boot = value;
    }
    return true;
}

}  // namespace

std::string ItemHeader::Encode() const {
    std::string text;
    FieldText::Append(text, "kind", kind == Kind::Mail ? mailWord : pictureWord);
    FieldText::Append(text, "accepted", std::to_string(acceptedMs));
    FieldText::Append(text, "synced", wasSynced ? "yes" : "no");
    FieldText::Append(text, "boot", boot);
    FieldText::Append(text, "uptime", std::to_string(uptimeMs));
    if (kind == Kind::Mail) {
        FieldText::Append(text, "from", sender);
        for (const std::string& recipient : recipients) {
            FieldText::Append(text, "to", recipient);
        }
    } else {
        FieldText::Append(text, "host", host);
        FieldText::Append(text, "port", std::to_string(port));
        FieldText::Append(text, "user", user);
        FieldText::Append(text, "password", password);
        FieldText::Append(text, "remote", remote);
    }
    FieldText::Append(text, checksumKey, ChecksumOf(text));
    return text.append("\n");
}

std::optional<ItemHeader> ItemHeader::Decode(std::string_view text) {
    const std::optional<FieldText::Fields> fields = FieldText::Parse(text);
    if (!fields || fields->empty() || fields->back().first != checksumKey) {
        return std::nullopt;
    }
    const size_t checked = text.find("\n" + std::string(checksumKey) + "=") + 1;
    if (fields->back().second != ChecksumOf(text.substr(0, checked))) {
        return std::nullopt;
    }
    ItemHeader header;
    for (const auto& [key, value] : *fields) {
        if (!TakeField(header, key, value)) {
            return std::nullopt;
        }
    }
    return header;
}

}  // namespace kelto::halvek::outbox
