#include "kelto/core/LogOutput.h"

#include "kelto/core/UtcOffset.h"

#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <string_view>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace kelto::core {

namespace {

constexpr const char* journalSocket = "/run/systemd/journal/socket";
constexpr size_t stackRecordSize = 1024;

bool StandardErrorIsJournal() {
    const char* const stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr) {
        return false;
    }
    char* rest = nullptr;
    const uintmax_t device = std::strtoumax(stream, &rest, 10);
    if (*rest != ':') {
        return false;
    }
    const uintmax_t inode = std::strtoumax(rest + 1, &rest, 10);
    struct stat status {};
    return *rest == '\0' && fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode &&
           access(journalSocket, F_OK) == 0;
}

/** The syslog priority that the journal wants for a level. */
int JournalPriority(LogLevel level) {
    switch (level) {
        case LogLevel::Error:
            return 3;
        case LogLevel::Warning:
            return 4;
        case LogLevel::Information:
            return 6;
        default:
            return 7;
    }
}

std::string_view TrimLineBreaks(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.remove_suffix(1);
    }
    return text;
}

/** Calendar arithmetic of our own: gmtime_r takes the same lock as localtime_r. Returns the length written. */
size_t FormatHeader(char* buffer, size_t size, LogLevel level, const char* loggerName) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::chrono::seconds local(int64_t{now.tv_sec} + UtcOffset::Get());
    const auto days = std::chrono::floor<std::chrono::days>(local);
    const std::chrono::year_month_day date{std::chrono::sys_days(days)};
    const std::chrono::hh_mm_ss clock(local - days);
    const int length = std::snprintf(
        buffer, size, "%04d-%02u-%02uT%02d:%02d:%02d.%03d %s %s: ", static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
        static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()),
        static_cast<int>(now.tv_nsec / 1000000), LogLevelName(level), loggerName);
    return std::min(static_cast<size_t>(length), size - 1);
}

void WriteLine(std::string_view record) {
    if (write(STDERR_FILENO, record.data(), record.size()) < 0) {
        // There is nowhere left to report it.
    }
}

void WriteToStandardError(LogLevel level, const char* loggerName, const char* format, va_list arguments) {
    std::array<char, stackRecordSize> buffer{};
    const size_t header = FormatHeader(buffer.data(), buffer.size() / 2, level, loggerName);
    va_list again;
    va_copy(again, arguments);
    const int textLength = std::vsnprintf(buffer.data() + header, buffer.size() - header, format, arguments);
    const size_t total = header + static_cast<size_t>(textLength > 0 ? textLength : 0);
    if (total < buffer.size()) {
        const size_t length = header + TrimLineBreaks({buffer.data() + header, total - header}).size();
        buffer.at(length) = '\n';
        WriteLine({buffer.data(), length + 1});
    } else {
        std::string record(buffer.data(), header);
        record.resize(total + 1);
        std::vsnprintf(record.data() + header, record.size() - header, format, again);
        record.pop_back();
        record.resize(header + TrimLineBreaks(std::string_view(record).substr(header)).size());
        record += '\n';
        WriteLine(record);
    }
    va_end(again);
}

void WriteToJournal(LogLevel level, const char* loggerName, const char* format, va_list arguments) {
    constexpr std::string_view field = "MESSAGE=";
    std::array<char, stackRecordSize> message{};
    field.copy(message.data(), field.size());
    va_list again;
    va_copy(again, arguments);
    const int textLength =
        std::vsnprintf(message.data() + field.size(), message.size() - field.size(), format, arguments);
    std::string longMessage;
    std::string_view text(message.data(), field.size() + static_cast<size_t>(textLength > 0 ? textLength : 0));
    if (text.size() >= message.size()) {
        longMessage.assign(field).resize(text.size() + 1);
        std::vsnprintf(longMessage.data() + field.size(), longMessage.size() - field.size(), format, again);
        text = std::string_view(longMessage).substr(0, text.size());
    }
    va_end(again);
    text = TrimLineBreaks(text);

    std::array<char, 16> priority{};
    const int priorityLength = std::snprintf(priority.data(), priority.size(), "PRIORITY=%d", JournalPriority(level));
    std::array<char, 128> logger{};
    std::snprintf(logger.data(), logger.size(), "LOGGER=%s", loggerName);
    const std::string_view loggerField(logger.data());
    const std::array<iovec, 3> fields = {{
        {const_cast<char*>(text.data()), text.size()},
        {priority.data(), static_cast<size_t>(priorityLength)},
        {logger.data(), loggerField.size()},
    }};
    sd_journal_sendv(fields.data(), static_cast<int>(fields.size()));
}

}  // namespace

LogOutput::LogOutput() : toJournal(StandardErrorIsJournal()) {}

void LogOutput::Write(LogLevel level, const char* loggerName, const char* format, va_list arguments) const {
    if (closed.load(std::memory_order_relaxed)) {
        return;
    }
    const int savedErrno = errno;
    if (toJournal) {
        WriteToJournal(level, loggerName, format, arguments);
    } else {
        WriteToStandardError(level, loggerName, format, arguments);
    }
    errno = savedErrno;
}

}  // namespace kelto::core
