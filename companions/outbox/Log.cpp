#include "companions/outbox/Log.h"

#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <string>

namespace kelto::halvek::outbox {

namespace {

void Write(std::string_view level, std::string_view text) {
    // The journal takes the level out again; a person would only wonder.
    static const bool isJournal = getenv("JOURNAL_STREAM") != nullptr;
    std::string line = isJournal ? std::string(level) : std::string();
    const size_t begin = line.size();
    line.append(text);
    std::replace_if(
        line.begin() + static_cast<ptrdiff_t>(begin), line.end(),
        [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, '?');
    line.push_back('\n');
    static_cast<void>(!write(STDERR_FILENO, line.data(), line.size()));
}

}  // namespace

void Log::Error(std::string_view text) {
    Write(SD_ERR, text);
}

void Log::Warning(std::string_view text) {
    Write(SD_WARNING, text);
}

void Log::Information(std::string_view text) {
    Write(SD_INFO, text);
}

void Log::Say(std::string_view text) {
    Write({}, text);
}

}  // namespace kelto::halvek::outbox
