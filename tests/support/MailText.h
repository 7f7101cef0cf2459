#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kelto::test {

/** A mail, or a part of one, taken apart at its lines; what is encoded in it stays encoded. */
class MailText {
public:
    explicit MailText(const std::string& text);

    /** The value of a header, in one line; "" if there is none. */
    std::string Header(const std::string& name) const;

    /** The names of all headers, in their order. */
    std::vector<std::string> HeaderNames() const;

    /** All behind the first empty line. */
    const std::string& GetBody() const { return body; }

    /** The parts of a multipart; none if it is something else. */
    std::vector<MailText> Parts() const;

private:
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

}  // namespace kelto::test
