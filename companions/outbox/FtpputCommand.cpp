#include "companions/outbox/FtpputCommand.h"

#include "companions/outbox/FieldText.h"
#include "companions/outbox/Log.h"

#include <getopt.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>

namespace kelto::halvek::outbox {

namespace {

// What the applet takes where there are no options.
constexpr const char* anonymousUser = "anonymous";
constexpr const char* anonymousPassword = "busybox";
constexpr uint16_t ftpPort = 21;
constexpr int fewestWords = 2;
constexpr int mostWords = 3;

const std::array<option, 6> longOptions = {{
    {"continue", no_argument, nullptr, 'c'},
    {"verbose", no_argument, nullptr, 'v'},
    {"username", required_argument, nullptr, 'u'},
    {"password", required_argument, nullptr, 'p'},
    {"port", required_argument, nullptr, 'P'},
    {nullptr, 0, nullptr, 0},
}};

/** A number or the name of a service; 0 for neither. */
uint16_t PortOf(const std::string& word) {
    if (const auto number = FieldText::Number(word, 65535)) {
        return static_cast<uint16_t>(*number);
    }
    const servent* service = getservbyname(word.c_str(), "tcp");
    return service == nullptr ? uint16_t{0} : ntohs(static_cast<uint16_t>(service->s_port));
}

/**
 * An empty password or server shifts the words, so that a file's name stands where the host should. The applet finds no
 * such host; here nobody has looked yet.
 */
bool IsHost(const std::string& name) {
    constexpr std::string_view others = "-._:%";
    return !name.empty() && std::all_of(name.begin(), name.end(), [&](unsigned char byte) {
        return byte >= 0x80 || isalnum(byte) != 0 || others.find(static_cast<char>(byte)) != std::string_view::npos;
    });
}

/** HOST, HOST:PORT, [ADDRESS]:PORT, or an address of IPv6 as it is. */
bool TakeHost(ItemHeader& header, const std::string& word) {
    size_t colon = word.rfind(':');
    header.host = word;
    if (word.starts_with('[') && word.find(']') != std::string::npos) {
        const size_t end = word.find(']');
        header.host = word.substr(1, end - 1);
        colon = end + 1 < word.size() ? end + 1 : std::string::npos;
    } else if (colon != word.find(':')) {
        return true;
    } else {
        header.host = word.substr(0, colon);
    }
    if (colon != std::string::npos) {
        header.port = PortOf(word.substr(colon + 1));
    }
    return header.port != 0;
}

}  // namespace

std::optional<FtpputCommand> FtpputCommand::Parse(int argc, char** argv) {
    FtpputCommand command;
    command.header.user = anonymousUser;
    command.header.password = anonymousPassword;
    command.header.port = ftpPort;
    std::string port;
    optind = 0;
    for (int letter = 0; (letter = getopt_long(argc, argv, "cvu:p:P:", longOptions.data(), nullptr)) != -1;) {
        switch (letter) {
            case 'u':
                command.header.user = optarg;
                break;
            case 'p':
                command.header.password = optarg;
                break;
            case 'P':
                port = optarg;
                command.header.port = PortOf(port);
                break;
            case 'c':
            case 'v':
                break;
            default:
                return std::nullopt;
        }
    }
    const int words = argc - optind;
    if (words < fewestWords || words > mostWords || (!port.empty() && command.header.port == 0) ||
        !TakeHost(command.header, argv[optind])) {
        return std::nullopt;
    }
    if (!IsHost(command.header.host)) {
        Log::Say("ftpput: bad address '" + command.header.host + "'");
        return std::nullopt;
    }
    command.header.remote = argv[optind + 1];
    command.local = argv[argc - 1];
    return command;
}

const char* FtpputCommand::Usage() {
    return "usage: ftpput [-v] [-c] [-u USER] [-p PASSWORD] [-P PORT] HOST [REMOTE] LOCAL";
}

}  // namespace kelto::halvek::outbox
