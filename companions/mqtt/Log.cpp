#include "companions/mqtt/Log.h"

#include "companions/mqtt/PlainText.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

namespace kelto::halvek::mqtt {

void Log::Write(char priority, std::string_view level, std::string_view text) {
    static const bool isJournal = getenv("JOURNAL_STREAM") != nullptr;
    std::string line = isJournal ? std::string{'<', priority, '>'} : std::string(level) + " halvek-mqtt: ";
    line.append(PlainText::Escape(text)).push_back('\n');
    static_cast<void>(!write(STDERR_FILENO, line.data(), line.size()));
}

}  // namespace kelto::halvek::mqtt
