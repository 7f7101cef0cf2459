#include "kelto/core/LogOutput.h"

#include "kelto/core/ControlCharacters.h"
#include "kelto/core/RecordBuffer.h"
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
#include <string_view>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

namespace kelto::core {

namespace {

constexpr const char* journalSocket = "/run/systemd/journal/socket";
constexpr size_t noticeSize = 256;
/** Bytes, of one character: a line break with what follows it. */
constexpr size_t longestEscape = 5;

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

/** The escaped record's length. Without the memory for it, the part of its text that has room in any case. */
size_t EscapeText(RecordBuffer& buffer, size_t begin, size_t end) {
    size_t length = ControlCharacters::EscapedLength(buffer.Text(begin, end));
    if (!buffer.Grow(begin + length + 1, end)) {
        end = begin + (buffer.Size() - begin - 1) / longestEscape;
        length = ControlCharacters::EscapedLength(buffer.Text(begin, end));
    }
    ControlCharacters::Escape(buffer.Data() + begin, end - begin, length);
    return begin + length;
}

void WriteToJournal(LogLevel level, const char* loggerName, const char* format, va_list arguments) {
    constexpr std::string_view field = "MESSAGE=";
    RecordBuffer buffer;
    field.copy(buffer.Data(), field.size());
    const size_t end = buffer.Format(field.size(), format, arguments);
    const size_t length = field.size() + ControlCharacters::TrimLineBreaks(buffer.Text(field.size(), end)).size();

    std::array<char, 16> priority{};
    const int priorityLength = std::snprintf(priority.data(), priority.size(), "PRIORITY=%d", JournalPriority(level));
    std::array<char, 128> logger{};
    std::snprintf(logger.data(), logger.size(), "LOGGER=%s", loggerName);
    const std::string_view loggerField(logger.data());
    const std::array<iovec, 3> fields = {{
        {buffer.Data(), length},
        {priority.data(), static_cast<size_t>(priorityLength)},
        {logger.data(), loggerField.size()},
    }};
    sd_journal_sendv(fields.data(), static_cast<int>(fields.size()));
}

}  // namespace

LogOutput::LogOutput() : toJournal(StandardErrorIsJournal()) {}

void LogOutput::Write(LogLevel level, const char* loggerName, const char* format, va_list arguments) {
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

void LogOutput::Close() {
    TellOfDropped();
    closed.store(true, std::memory_order_relaxed);
}

void LogOutput::WriteToStandardError(LogLevel level, const char* loggerName, const char* format, va_list arguments) {
    RecordBuffer buffer;
    const size_t begin = FormatHeader(buffer.Data(), buffer.Size() / 2, level, loggerName);
    const size_t end = buffer.Format(begin, format, arguments);
    const size_t trimmed = begin + ControlCharacters::TrimLineBreaks(buffer.Text(begin, end)).size();
    const size_t length = EscapeText(buffer, begin, trimmed);
    buffer.Data()[length] = '\n';
    if (!TellOfDropped() || !WriteLine(buffer.Text(0, length + 1))) {
        dropped.fetch_add(1, std::memory_order_relaxed);
    }
}

bool LogOutput::TellOfDropped() {
    const unsigned count = dropped.exchange(0, std::memory_order_relaxed);
    if (count == 0) {
        return true;
    }
    std::array<char, noticeSize> notice{};
    // A record that was cut has left its line open.
    notice[0] = '\n';
    const size_t begin = midLine.load(std::memory_order_relaxed) ? 0 : 1;
    const size_t header = 1 + FormatHeader(notice.data() + 1, notice.size() / 2, LogLevel::Error, "kelto.core");
    const int text = std::snprintf(notice.data() + header, notice.size() - header,
                                   "%u records were dropped, nobody reads standard error\n", count);
    if (WriteLine({notice.data() + begin, header - begin + static_cast<size_t>(text)})) {
        return true;
    }
    dropped.fetch_add(count, std::memory_order_relaxed);
    return false;
}

bool LogOutput::WriteLine(std::string_view line) {
    const size_t written = standardError.Write(line);
    if (written > 0) {
        midLine.store(written < line.size(), std::memory_order_relaxed);
    }
    return written == line.size();
}

}  // namespace kelto::core
