#include "tests/support/MailText.h"

#include <sstream>

namespace kelto::test {

MailText::MailText(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !line.empty();) {
        if (line.front() == ' ' || line.front() == '\t') {
            headers.back().second += line;
        } else {
            const size_t colon = line.find(": ");
            headers.emplace_back(line.substr(0, colon), colon == std::string::npos ? "" : line.substr(colon + 2));
        }
    }
    body = lines.good() ? text.substr(static_cast<size_t>(lines.tellg())) : "";
}

std::string MailText::Header(const std::string& name) const {
    for (const auto& [headerName, value] : headers) {
        if (headerName == name) {
            return value;
        }
    }
    return "";
}

std::vector<std::string> MailText::HeaderNames() const {
    std::vector<std::string> names;
    names.reserve(headers.size());
    for (const auto& header : headers) {
        names.push_back(header.first);
    }
    return names;
}

std::vector<MailText> MailText::Parts() const {
    const std::string type = Header("Content-Type");
    const std::string key = "boundary=\"";
    const size_t begin = type.find(key);
    if (begin == std::string::npos) {
        return {};
    }
    const size_t nameBegin = begin + key.size();
    const std::string boundary = "\n--" + type.substr(nameBegin, type.find('"', nameBegin) - nameBegin);
    const std::string text = "\n" + body;
    std::vector<MailText> parts;
    size_t at = text.find(boundary + "\n");
    while (at != std::string::npos) {
        const size_t partBegin = at + boundary.size() + 1;
        const size_t end = text.find(boundary, partBegin);
        parts.emplace_back(text.substr(partBegin, end - partBegin));
        at = text.find(boundary + "\n", end);
    }
    return parts;
}

}  // namespace kelto::test
