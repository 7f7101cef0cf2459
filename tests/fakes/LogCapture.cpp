#include "tests/fakes/LogCapture.h"

#include "kelto/core/Logger.h"
#include "tests/fakes/WaitUntil.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <regex>
#include <sstream>

namespace kelto::test {

LogCapture::LogCapture(core::LogLevel level) : file(memfd_create("log", MFD_CLOEXEC)), savedStandardError(dup(2)) {
    // The file's end moves with each write, as it would in a log file, so that Clear may cut it.
    fcntl(file, F_SETFL, O_APPEND);
    dup2(file, STDERR_FILENO);
    core::Logger::SetLevels({.general = level, .byLogger = {}});
}

LogCapture::~LogCapture() {
    dup2(savedStandardError, STDERR_FILENO);
    close(savedStandardError);
    close(file);
    core::Logger::SetLevels({});
}

std::string LogCapture::Text() const {
    std::string text;
    std::array<char, 65536> buffer{};
    ssize_t count = 0;
    while ((count = pread(file, buffer.data(), buffer.size(), static_cast<off_t>(text.size()))) > 0) {
        text.append(buffer.data(), static_cast<size_t>(count));
    }
    return text;
}

std::vector<LogRecord> LogCapture::Records() const {
    static const std::regex begin(
        R"((\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}) (Trace|Debug|Information|Warning|Error) ([^ ]+): ([^]*))");
    std::vector<LogRecord> records;
    std::istringstream text(Text());
    for (std::string line; std::getline(text, line);) {
        std::smatch match;
        if (std::regex_match(line, match, begin)) {
            records.push_back({match[1], match[2], match[3], match[4]});
        } else if (!records.empty()) {
            records.back().text += "\n" + line;
        }
    }
    return records;
}

std::vector<std::string> LogCapture::Lines() const {
    std::vector<std::string> lines;
    for (const LogRecord& record : Records()) {
        lines.push_back(record.ToString());
    }
    return lines;
}

size_t LogCapture::Count(const std::string& line) const {
    const std::vector<std::string> lines = Lines();
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

bool LogCapture::WaitFor(const std::string& line, size_t count) const {
    return WaitUntil([&] { return Count(line) >= count; });
}

void LogCapture::Clear() {
    if (ftruncate(file, 0) != 0) {
        std::abort();
    }
}

}  // namespace kelto::test
