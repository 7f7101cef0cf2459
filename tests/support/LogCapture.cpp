#include "tests/support/LogCapture.h"

#include "kelto/core/Logger.h"
#include "tests/support/WaitUntil.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string_view>

namespace kelto::test {

namespace {

/** What follows a line break inside a record's text. */
constexpr std::string_view indentation = "    ";

bool IsTime(const std::string& text) {
    constexpr std::string_view form = "dddd-dd-ddTdd:dd:dd.ddd";
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char character, char expected) {
        return expected == 'd' ? std::isdigit(static_cast<unsigned char>(character)) != 0 : character == expected;
    });
}

/** The record that begins with this line: "<time> <level> <logger>: <text>"; nothing if none does. */
std::optional<LogRecord> ParseBegin(const std::string& line) {
    const size_t timeEnd = line.find(' ');
    const size_t levelEnd = timeEnd == std::string::npos ? timeEnd : line.find(' ', timeEnd + 1);
    const size_t loggerEnd = levelEnd == std::string::npos ? levelEnd : line.find(": ", levelEnd + 1);
    if (loggerEnd == std::string::npos) {
        return std::nullopt;
    }
    LogRecord record{line.substr(0, timeEnd), line.substr(timeEnd + 1, levelEnd - timeEnd - 1),
                     line.substr(levelEnd + 1, loggerEnd - levelEnd - 1), line.substr(loggerEnd + 2)};
    const auto level = core::ParseLogLevel(record.level);
    const bool known = level && record.level == core::LogLevelName(*level);
    if (!known || !IsTime(record.time) || record.logger.find(' ') != std::string::npos) {
        return std::nullopt;
    }
    return record;
}

std::vector<LogRecord> ParseRecords(const std::string& text) {
    std::vector<LogRecord> records;
    std::istringstream lines(text);
    size_t begin = 0;
    for (std::string line; std::getline(lines, line); begin += line.size() + 1) {
        if (auto record = ParseBegin(line)) {
            record->begin = begin;
            records.push_back(*record);
        } else if (!records.empty()) {
            records.back().text += "\n" + (line.starts_with(indentation) ? line.substr(indentation.size()) : line);
        }
    }
    return records;
}

}  // namespace

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

std::string LogCapture::Text(size_t from) const {
    std::string text;
    std::array<char, 65536> buffer{};
    ssize_t count = 0;
    while ((count = pread(file, buffer.data(), buffer.size(), static_cast<off_t>(from + text.size()))) > 0) {
        text.append(buffer.data(), static_cast<size_t>(count));
    }
    return text;
}

std::vector<LogRecord> LogCapture::Records() const {
    return ParseRecords(Text());
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
    // Each look goes on where the last one ended: a log may grow faster than all of it could be read again and again.
    size_t from = 0;
    size_t seen = 0;
    return WaitUntil([&] {
        const std::vector<LogRecord> records = ParseRecords(Text(from));
        const auto found = [&](const LogRecord& record) { return record.ToString() == line; };
        if (seen + static_cast<size_t>(std::count_if(records.begin(), records.end(), found)) >= count) {
            return true;
        }
        if (!records.empty()) {
            // The last one may still get another line.
            seen += static_cast<size_t>(std::count_if(records.begin(), records.end() - 1, found));
            from += records.back().begin;
        }
        return false;
    });
}

void LogCapture::Clear() {
    if (ftruncate(file, 0) != 0) {
        std::abort();
    }
}

}  // namespace kelto::test
