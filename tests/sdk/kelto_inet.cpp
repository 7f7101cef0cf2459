// A camera that sends no mail.
#include "kelto/inet/EmailMessage.h"
#include "kelto/osa/Exception.h"

namespace kelto::inet {

EmailMessage::EmailMessage(const std::string&, const std::string&) {
    throw osa::Exception("This camera sends no mail");
}

void EmailMessage::AddRecipient(const std::string&, Recipient) {}

void EmailMessage::AddContent(const char*, unsigned int) {}

void EmailMessage::AddContent(const std::string&) {}

void EmailMessage::Attach(const std::string&) {}

std::ostream& operator<<(std::ostream& stream, const EmailMessage&) {
    return stream;
}

}  // namespace kelto::inet
