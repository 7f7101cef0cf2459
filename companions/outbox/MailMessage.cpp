#include "companions/outbox/MailMessage.h"

#include <strings.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace kelto::halvek::outbox {

namespace {

constexpr std::string_view lineEnd = "\r\n";
constexpr std::string_view mailboxMark = "From ";

/** Takes the next line off the front, without its end. */
std::string_view NextLine(std::string_view& text) {
    const size_t end = std::min(text.find('\n'), text.size());
    std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

bool IsContinued(std::string_view rest) {
    return !rest.empty() && (rest.front() == ' ' || rest.front() == '\t');
}

bool IsNamed(std::string_view field, std::string_view name) {
    return field.size() > name.size() && field[name.size()] == ':' &&
           strncasecmp(field.data(), name.data(), name.size()) == 0;
}

std::string HostName() {
    std::array<char, HOST_NAME_MAX + 1> buffer{};
    gethostname(buffer.data(), buffer.size() - 1);
    std::string name(buffer.data());
    std::erase_if(name, [](unsigned char byte) { return isalnum(byte) == 0 && byte != '-' && byte != '.'; });
    return name.empty() ? "localhost" : name;
}

std::string NewMessageId() {
    std::array<uint64_t, 2> random{};
    if (getrandom(random.data(), sizeof(random), 0) != sizeof(random)) {
        throw std::system_error(errno, std::generic_category(), "there are no random numbers for a Message-ID");
    }
    std::array<char, 33> text{};
    std::snprintf(text.data(), text.size(), "%016" PRIx64 "%016" PRIx64, random[0], random[1]);
    return "Message-ID: <" + std::string(text.data()) + "@" + HostName() + ">";
}

std::string DateOfNow() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "Date: %a, %d %b %Y %H:%M:%S %z", &local);
    return text.data();
}

/** Reads addresses as RFC 5322 has them, and forgives what it does not allow. */
class AddressReader {
public:
    explicit AddressReader(std::string_view value) : rest(value) {}

    std::vector<std::string> Read() {
        while (!rest.empty()) {
            const char byte = rest.front();
            rest.remove_prefix(1);
            switch (byte) {
                case '(':
                    SkipComment();
                    break;
                case '"':
                    TakeQuoted();
                    break;
                case '<':
                    TakeAngle();
                    break;
                case ':':
                    // What stood in front is the name of a group.
                    current.clear();
                    break;
                case ',':
                case ';':
                    Finish();
                    break;
                default:
                    Append(byte);
            }
        }
        Finish();
        return addresses;
    }

private:
    void Append(char byte) {
        if (static_cast<unsigned char>(byte) > ' ' && byte != 0x7f) {
            current.push_back(byte);
        }
    }

    void SkipComment() {
        for (int depth = 1; depth > 0 && !rest.empty(); rest.remove_prefix(1)) {
            if (rest.front() == '\\' && rest.size() > 1) {
                rest.remove_prefix(1);
            } else if (rest.front() == '(') {
                ++depth;
            } else if (rest.front() == ')') {
                --depth;
            }
        }
    }

    /** A name, unless an "@" follows: then it is a part of the address. */
    void TakeQuoted() {
        std::string quoted = "\"";
        while (!rest.empty() && rest.front() != '"') {
            if (rest.front() == '\\' && rest.size() > 1) {
                quoted.push_back('\\');
                rest.remove_prefix(1);
            }
            quoted.push_back(rest.front());
            rest.remove_prefix(1);
        }
        rest.remove_prefix(std::min<size_t>(1, rest.size()));
        if (!rest.empty() && rest.front() == '@') {
            current += quoted + "\"";
        }
    }

    void TakeAngle() {
        current.clear();
        while (!rest.empty() && rest.front() != '>') {
            Append(rest.front());
            rest.remove_prefix(1);
        }
        rest.remove_prefix(std::min<size_t>(1, rest.size()));
        Finish();
        // Nothing behind it belongs to an address.
        const size_t next = std::min(rest.find_first_of(",;"), rest.size());
        rest.remove_prefix(next);
    }

    void Finish() {
        if (!current.empty() && std::find(addresses.begin(), addresses.end(), current) == addresses.end()) {
            addresses.push_back(current);
        }
        current.clear();
    }

    std::string_view rest;
    std::string current;
    std::vector<std::string> addresses;
};

}  // namespace

std::vector<std::string> MailMessage::Addresses(std::string_view value) {
    return AddressReader(value).Read();
}

MailMessage MailMessage::Parse(std::string_view raw) {
    MailMessage mail;
    bool hasDate = false;
    bool hasMessageId = false;
    if (raw.starts_with(mailboxMark)) {
        NextLine(raw);
    }
    while (!raw.empty()) {
        std::string field(NextLine(raw));
        if (field.empty()) {
            break;
        }
        while (IsContinued(raw)) {
            field.append(lineEnd).append(NextLine(raw));
        }
        const std::string_view value = std::string_view(field).substr(std::min(field.find(':') + 1, field.size()));
        const bool isBcc = IsNamed(field, "Bcc");
        if (isBcc || IsNamed(field, "To") || IsNamed(field, "Cc")) {
            for (const std::string& address : Addresses(value)) {
                if (std::find(mail.recipients.begin(), mail.recipients.end(), address) == mail.recipients.end()) {
                    mail.recipients.push_back(address);
                }
            }
        }
        if (IsNamed(field, "From") && mail.sender.empty()) {
            const std::vector<std::string> senders = Addresses(value);
            mail.sender = senders.empty() ? "" : senders.front();
        }
        hasDate = hasDate || IsNamed(field, "Date");
        hasMessageId = hasMessageId || IsNamed(field, "Message-ID");
        if (!isBcc) {
            mail.text.append(field).append(lineEnd);
        }
    }
    if (!hasDate) {
        mail.text.append(DateOfNow()).append(lineEnd);
    }
    if (!hasMessageId) {
        mail.text.append(NewMessageId()).append(lineEnd);
    }
    mail.text.append(lineEnd);
    while (!raw.empty()) {
        mail.text.append(NextLine(raw)).append(lineEnd);
    }
    return mail;
}

}  // namespace kelto::halvek::outbox
