#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::outbox {

/** A mail as it is sent, and its envelope, made of what a program hands to "esmtp -t". A plain value. */
struct MailMessage {
    /** The address in From; empty if there is none. */
    std::string sender;
    /** The addresses in To, Cc and Bcc, each once. */
    std::vector<std::string> recipients;
    /**
     * Header and text with CR LF at each line's end, without Bcc. A Date and a Message-ID are put in where they are
     * missing: a mail that is sent twice has the same ones, and so is known again.
     */
    std::string text;

    /** @throws std::system_error if there are no random numbers for a Message-ID */
    static MailMessage Parse(std::string_view raw);

    /** The addresses in a header's value: without names and comments. */
    static std::vector<std::string> Addresses(std::string_view value);
};

}  // namespace kelto::halvek::outbox
