#include "companions/outbox/Esmtprc.h"

#include "companions/outbox/FieldText.h"

#include <strings.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace kelto::halvek::outbox {

namespace {

constexpr uint16_t defaultPort = 25;
constexpr std::string_view blanks = " \t\r=";

Server LocalServer() {
    Server server;
    server.scheme = "smtp";
    server.host = "localhost";
    server.port = defaultPort;
    server.neverUsesTls = true;
    return server;
}

/** The next word of a line: in quotes, or up to a blank or "=". A "#" begins a comment. */
std::string TakeWord(std::string_view& line) {
    line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
    if (line.empty() || line.front() == '#') {
        line = {};
        return {};
    }
    if (line.front() != '"') {
        const size_t end = std::min(line.find_first_of(blanks), line.size());
        std::string word(line.substr(0, end));
        line.remove_prefix(end);
        return word;
    }
    std::string word;
    line.remove_prefix(1);
    while (!line.empty() && line.front() != '"') {
        if (line.front() == '\\' && line.size() > 1) {
            line.remove_prefix(1);
        }
        word.push_back(line.front());
        line.remove_prefix(1);
    }
    line.remove_prefix(std::min<size_t>(1, line.size()));
    return word;
}

}  // namespace

Esmtprc::Esmtprc(std::string_view text) : identities{{{}, LocalServer()}} {
    for (int number = 1; !text.empty(); ++number) {
        const size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        const std::string key = TakeWord(line);
        if (!key.empty()) {
            TakeEntry(key, TakeWord(line), number);
        }
    }
}

Esmtprc Esmtprc::Load(const std::string& path) {
    std::ostringstream text;
    if (const std::ifstream file(path); file) {
        text << file.rdbuf();
    }
    return Esmtprc(std::move(text).str());
}

void Esmtprc::TakeEntry(const std::string& key, const std::string& value, int line) {
    Server& server = identities.back().server;
    if (key == "identity") {
        identities.push_back({value, LocalServer()});
    } else if (key == "hostname") {
        const size_t colon = value.rfind(':');
        server.host = value.substr(0, colon);
        const std::optional<int64_t> port =
            colon == std::string::npos ? defaultPort : FieldText::Number(value.substr(colon + 1), 65535);
        server.port = static_cast<uint16_t>(port.value_or(defaultPort));
    } else if (key == "username") {
        server.user = value;
    } else if (key == "password") {
        server.password = value;
    } else if (key == "starttls") {
        server.neverUsesTls = value == "disabled";
        server.mustUseTls = value == "required";
    } else {
        warnings.push_back("line " + std::to_string(line) + ": " + key + " means nothing to the outbox");
    }
}

const Server& Esmtprc::ServerFor(const std::string& sender) const {
    const auto found = std::find_if(identities.begin() + 1, identities.end(), [&](const Identity& identity) {
        return strcasecmp(identity.address.c_str(), sender.c_str()) == 0;
    });
    return (found == identities.end() ? identities.begin() : found)->server;
}

}  // namespace kelto::halvek::outbox
