#include "source/PostedBlock.h"

#include "kelto/core/Logger.h"

#include <cctype>

namespace kelto::halvek::source {

namespace {

constexpr size_t mostKeysAndValues = 60'000;
/** What an empty pipe takes with one write. */
constexpr size_t pipeSize = 65'536;
constexpr size_t stampsSize = sizeof("Timestamp=14:05:09\nFormattedTime=2026-21-11T14:05:09+00:00\n") - 1;

}  // namespace

PostedBlock::PostedBlock() : logger(core::Logger::GetLogger("halvek")) {}

void PostedBlock::Begin() {
    properties.clear();
    taken = 0;
    givenUp = false;
    headerBegins = false;
}

bool PostedBlock::TakeLine(const std::string& line) {
    const char first = line.at(0);
    if (first == '[') {
        TakeHeader(line);
        return true;
    }
    if (line == ".") {
        return false;
    }
    if (std::isalnum(static_cast<unsigned char>(first)) == 0) {
        return true;
    }
    const size_t equals = line.find('=');
    if (equals == std::string::npos) {
        return false;
    }
    TakeProperty(line, equals);
    return true;
}

void PostedBlock::TakeTooLongLine() {
    GiveUp();
    headerBegins = true;
}

void PostedBlock::CheckWrittenSize() {
    size_t size = sizeof("[]\n.\n") - 1 + eventType.size() + stampsSize;
    for (const auto& [key, value] : properties) {
        size += key.size() + value.size() + sizeof("=\n") - 1;
    }
    if (size > pipeSize) {
        GiveUp();
    }
}

void PostedBlock::TakeHeader(const std::string& line) {
    if (headerBegins) {
        Begin();
    }
    const size_t end = line.find(']');
    if (end == std::string::npos) {
        logger.Debug("\tFind didn't find a ]");
        return;
    }
    eventType = line.substr(1, end - 1);
    logger.Debug("\tEvent type: %s", eventType.c_str());
}

void PostedBlock::TakeProperty(const std::string& line, size_t equals) {
    taken += line.size() - 1;
    if (taken > mostKeysAndValues) {
        GiveUp();
    }
    if (!givenUp) {
        properties.insert_or_assign(line.substr(0, equals), line.substr(equals + 1));
    }
}

void PostedBlock::GiveUp() {
    if (givenUp) {
        return;
    }
    logger.Error("EventServerSource: event of more than 60000 bytes skipped");
    givenUp = true;
    properties.clear();
}

}  // namespace kelto::halvek::source
