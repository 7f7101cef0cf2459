#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

struct kelto_mail_part;

namespace kelto::inet {

/**
 * A mail: its addresses, a subject, texts and files.
 *
 * A value of one thread's; any number of threads may have one each. Nothing here needs the mail library but the stream
 * operator, which loads it when the first mail of the process is written, and never gives it up again.
 *
 * All texts are UTF-8. Line breaks are taken out of whatever goes into a header, so no value can add a header or a
 * recipient.
 */
class EmailMessage {
public:
    enum class Recipient : int {
        To = 0,
        Cc = 1,
        /** The mail program takes these out of the headers. */
        Bcc = 2,
    };

    /** @param sender one address; empty to leave it to the mail program */
    EmailMessage(const std::string& sender, const std::string& subjectLine);

    /**
     * Adds recipients.
     *
     * @param addresses any number of addresses with names or without, separated by "," or ";" outside of quotes
     */
    void AddRecipient(const std::string& addresses, Recipient kind);

    /** Adds a text as a part of its own. Its line ends may be those of any system. */
    void AddContent(const char* text, unsigned int length);
    void AddContent(const std::string& text);

    /**
     * Adds a file as it is now, under the last name of its path; its type goes by the name's extension. A file that
     * cannot be read, or has more than 16 MiB, is a Warning, and the mail goes without it.
     */
    void Attach(const std::string& path);

private:
    friend std::ostream& operator<<(std::ostream& stream, const EmailMessage& message);

    struct Address {
        Recipient kind;
        std::string text;
    };

    struct Part {
        /** Without folders; none for a text. */
        std::optional<std::string> fileName;
        /** A text, encoded, or the bytes of the file. */
        std::string data;
        bool isQuotedPrintable;
    };

    static kelto_mail_part ToMailPart(const Part& part);
    std::string ToWireForm() const;

    const std::string from;
    const std::string subject;
    std::vector<Address> recipients;
    std::vector<Part> parts;
};

/**
 * Writes the whole mail as a mail program reads it from its standard input: headers and MIME parts, lines ended by line
 * feeds, none of which begins with "." (it would end the mail for some programs), with the Date of now and a Message-ID
 * of its own at each call.
 *
 * A single part is the body itself; several make a multipart in the order in which they were added; a mail without any
 * is an empty text. An address that is none is a Warning, and the mail goes without it.
 *
 * @throws kelto::osa::Exception if the module with the mail library cannot be loaded; the next call tries again
 */
std::ostream& operator<<(std::ostream& stream, const EmailMessage& message);

}  // namespace kelto::inet
