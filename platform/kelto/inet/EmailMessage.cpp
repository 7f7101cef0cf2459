#include "kelto/inet/EmailMessage.h"

#include "kelto/core/Logger.h"
#include "kelto/inet/AddressList.h"
#include "kelto/inet/AttachedFile.h"
#include "kelto/inet/MailLoader.h"
#include "kelto/inet/TextEncoding.h"
#include "kelto/osa/Exception.h"

#include <sys/random.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <ostream>
#include <utility>

namespace kelto::inet {

namespace {

constexpr kelto_mail_part emptyText{"text", "plain", nullptr, "", 0, 0};

core::Logger& Log() {
    return core::Logger::GetLogger("kelto.inet");
}

std::string WithoutLineBreaks(std::string value) {
    std::erase_if(value, [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
    return value;
}

/** Made here and not by the mail library, whose time ends in 2038 on a 32-bit system. */
std::string DateOfNow() {
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S %z", &local);
    return text.data();
}

std::string HostName() {
    std::array<char, HOST_NAME_MAX + 1> buffer{};
    gethostname(buffer.data(), buffer.size() - 1);
    std::string name(buffer.data());
    std::erase_if(name, [](unsigned char c) { return std::isalnum(c) == 0 && c != '-' && c != '.'; });
    return name.empty() ? "localhost" : name;
}

std::string NewMessageId() {
    std::array<uint64_t, 2> random{};
    if (getrandom(random.data(), sizeof(random), 0) != sizeof(random)) {
        throw osa::Exception("There are no random numbers for a Message-ID");
    }
    std::array<char, 33> text{};
    std::snprintf(text.data(), text.size(), "%016llx%016llx", static_cast<unsigned long long>(random[0]),
                  static_cast<unsigned long long>(random[1]));
    return std::string(text.data()) + "@" + HostName();
}

kelto_mail_address_kind KindOf(EmailMessage::Recipient recipient) {
    switch (recipient) {
        case EmailMessage::Recipient::Cc:
            return KELTO_MAIL_CC;
        case EmailMessage::Recipient::Bcc:
            return KELTO_MAIL_BCC;
        default:
            return KELTO_MAIL_TO;
    }
}

void WarnOfRefused(const std::vector<kelto_mail_address>& addresses) {
    for (const kelto_mail_address& address : addresses) {
        if (address.refused != 0) {
            Log().Warning("Not an address, the mail goes without it: %s", address.text);
        }
    }
}

}  // namespace

EmailMessage::EmailMessage(const std::string& sender, const std::string& subjectLine)
    : from(WithoutLineBreaks(sender)), subject(WithoutLineBreaks(subjectLine)) {}

void EmailMessage::AddRecipient(const std::string& addresses, Recipient kind) {
    for (const std::string& address : SplitAddresses(WithoutLineBreaks(addresses))) {
        recipients.push_back({kind, address});
    }
}

void EmailMessage::AddContent(const char* text, unsigned int length) {
    AddContent(std::string(text, length));
}

void EmailMessage::AddContent(const std::string& text) {
    EncodedText encoded = EncodeText(text);
    parts.push_back({std::nullopt, std::move(encoded.data), encoded.isQuotedPrintable});
}

void EmailMessage::Attach(const std::string& path) {
    try {
        const std::string name = path.substr(path.rfind('/') + 1);
        parts.push_back({WithoutLineBreaks(name), ReadAttachedFile(path), false});
    } catch (const osa::Exception& exception) {
        Log().Warning("The mail goes without its attachment: %s", exception.what());
    }
}

std::string EmailMessage::ToWireForm() const {
    const std::string date = DateOfNow();
    const std::string messageId = NewMessageId();
    std::vector<kelto_mail_address> addresses;
    if (!from.empty()) {
        addresses.push_back({KELTO_MAIL_FROM, from.c_str(), 0});
    }
    for (const Address& recipient : recipients) {
        addresses.push_back({KindOf(recipient.kind), recipient.text.c_str(), 0});
    }
    std::vector<kelto_mail_part> mailParts;
    for (const Part& part : parts) {
        mailParts.push_back(ToMailPart(part));
    }
    if (mailParts.empty()) {
        mailParts.push_back(emptyText);
    }
    std::string wireForm = WriteMail({subject.c_str(), date.c_str(), messageId.c_str(), addresses.data(),
                                      addresses.size(), mailParts.data(), mailParts.size()});
    WarnOfRefused(addresses);
    return wireForm;
}

kelto_mail_part EmailMessage::ToMailPart(const Part& part) {
    if (!part.fileName) {
        return {"text", "plain", nullptr, part.data.data(), part.data.size(), part.isQuotedPrintable ? 1 : 0};
    }
    const MediaType type = TypeOfFile(*part.fileName);
    return {type.type, type.subtype, part.fileName->c_str(), part.data.data(), part.data.size(), 0};
}

std::ostream& operator<<(std::ostream& stream, const EmailMessage& message) {
    return stream << message.ToWireForm();
}

}  // namespace kelto::inet
