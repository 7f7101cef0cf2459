#include "companions/common/Utf8.h"
#include "companions/ctl/HandlerSteps.h"
#include "companions/ctl/LongestTime.h"
#include "util/base64.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t longestBody = 5000;
constexpr size_t expansionFactor = 10;

bool IsBase64(const std::string& text) {
    constexpr const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t padding = text.find_first_not_of(alphabet);
    const std::string rest = padding == std::string::npos ? "" : text.substr(padding);
    return text.size() % 4 == 0 && (rest.empty() || rest == "=" || rest == "==");
}

std::string Encoded(const std::string& text) {
    static constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (size_t at = 0; at < text.size(); at += 3) {
        const std::string group = text.substr(at, 3);
        uint32_t bits = 0;
        for (size_t i = 0; i < 3; ++i) {
            bits = bits << 8U | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
        }
        for (size_t i = 0; i < 4; ++i) {
            encoded += i <= group.size() ? alphabet[bits >> (18U - 6U * i) & 0x3fU] : '=';
        }
    }
    return encoded;
}

std::string Decoded(const std::string& text) {
    std::string decoded(base64_decode_len(text.data(), text.size()), '\0');
    base64_decode(text.data(), text.size(), decoded.data(), decoded.size());
    return decoded.substr(0, decoded.find('\0'));
}

/** Whether most of it can be read, and nothing steers a terminal: a word that is taken for base64 is no such text. */
bool IsText(const std::string& text) {
    constexpr size_t share = 4;
    size_t odd = 0;
    for (std::string_view rest = text; !rest.empty();) {
        const companion::Utf8Character character = companion::FirstCharacter(rest);
        if (character.IsControl() && rest.front() != '\n' && rest.front() != '\r' && rest.front() != '\t') {
            return false;
        }
        odd += character.isValid ? 0 : 1;
        rest.remove_prefix(character.length);
    }
    return odd * share < text.size();
}

void CheckMessage(Examination& examination, const HandlerView& handler) {
    const std::string message = handler.Value("Message");
    const std::string group = handler.GroupOf("Message");
    if (message.empty()) {
        return;
    }
    const std::string text = Decoded(message);
    if (!IsText(text)) {
        Finding& finding =
            examination.AtValue("HK3007", group, "Message",
                                "this is not base64, so that the mail's text becomes garbage; base64 -w0 "
                                "makes it");
        finding.fix = Encoded(message);
        return;
    }
    if (!IsBase64(message)) {
        Finding& finding =
            examination.AtValue("HK3007", group, "Message", "not quite base64, but read as " + Quoted(text));
        finding.severity = Severity::Note;
        finding.fix = Encoded(text);
    }
    const std::string expanded = LongestTime::Expanded(text);
    if (expanded.size() > longestBody) {
        examination.AtValue("HK3008", group, "Message",
                            "with its conversions filled in the text has up to " + std::to_string(expanded.size()) +
                                " bytes; more than 5000 are not sent");
    } else if (expanded.size() >= expansionFactor * (base64_decode_len(message.data(), message.size()) + 1) ||
               (expanded.empty() && !text.empty())) {
        examination.AtValue("HK3008", group, "Message",
                            "with its conversions filled in the text is too long, or empty: the mail has no text");
    }
}

std::vector<std::string> AddressesOf(const std::string& list, std::string_view separators) {
    std::vector<std::string> addresses(1);
    bool isQuoted = false;
    for (const char letter : list) {
        isQuoted = isQuoted != (letter == '"');
        if (separators.find(letter) != std::string_view::npos && !isQuoted) {
            addresses.emplace_back();
        } else {
            addresses.back() += letter;
        }
    }
    for (std::string& address : addresses) {
        address.erase(0, address.find_first_not_of(" \t"));
        address.erase(address.find_last_not_of(" \t") + 1);
    }
    std::erase(addresses, "");
    return addresses;
}

/** "guard@example.org" of "Guard <guard@example.org>". */
std::string WithoutName(const std::string& address) {
    const size_t open = address.rfind('<');
    return open == std::string::npos || !address.ends_with('>') ? address
                                                                : address.substr(open + 1, address.size() - open - 2);
}

bool IsRefused(const std::string& address) {
    const std::string bare = WithoutName(address);
    const bool isWhole = !bare.empty() && bare.front() != '@' && bare.back() != '@';
    return !isWhole || (bare.find(' ') != std::string::npos && bare.front() != '"');
}

void CheckAddress(Examination& examination, const HandlerView& handler, const char* key, const std::string& address,
                  bool isRefused) {
    const auto signs = std::count(address.begin(), address.end(), '@');
    if (isRefused) {
        const std::string record = "Not an address, the mail goes without it: " + address;
        examination
            .AtValue("HK3027", handler.GroupOf(key), key,
                     Quoted(address) + " is no address, and the mail goes without it")
            .foretells = AtEachEvent(handler, record);
    } else if (signs == 0) {
        examination.AtValue("HK3027", handler.GroupOf(key), key,
                            Quoted(address) + " has no \"@\": it is a user of the mail server, if there is one");
    } else if (signs > 1) {
        examination.AtValue("HK3027", handler.GroupOf(key), key, Quoted(address) + " is cut at the second \"@\"");
    }
}

void CheckRecipients(Examination& examination, const HandlerView& handler) {
    for (const std::string& address : AddressesOf(handler.Value("To"), ",;")) {
        CheckAddress(examination, handler, "To", address, IsRefused(address));
    }
}

/** There is one sender. */
void CheckSender(Examination& examination, const HandlerView& handler) {
    const std::string sender = handler.Value("From");
    if (!sender.empty()) {
        CheckAddress(examination, handler, "From", sender, AddressesOf(sender, ",").size() > 1 || IsRefused(sender));
    }
}

}  // namespace

void CheckMail(Examination& examination, const HandlerView& handler) {
    if (AddressesOf(handler.Value("To"), ",;").empty()) {
        examination.AtValue("HK3025", handler.GroupOf("To"), "To", "without a To the mail goes to nobody");
    }
    if (handler.Value("From").empty()) {
        examination.AtValue("HK3026", handler.GroupOf("From"), "From",
                            "without a From it is up to esmtp and the server what becomes of the mail");
    }
    CheckRecipients(examination, handler);
    CheckSender(examination, handler);
    CheckMessage(examination, handler);
}

}  // namespace kelto::halvek::ctl
