#include "bench/load/BlockChecker.h"

#include <array>
#include <cinttypes>
#include <cstdio>
#include <stdexcept>

namespace kelto::halvek::bench {

namespace {

/** "#" stands for any digit of a time stamp, "@" for a digit of the number. */
constexpr std::string_view blockPattern =
    "[MotionDetection]\n"
    "FormattedTime=####-##-##T##:##:##+00:00\n"
    "Timestamp=##:##:##\n"
    "eventId=3\n"
    "eventType=MotionDetection\n"
    "label=door-1\n"
    "number=@@@@@@@@@@\n"
    "region=3\n"
    ".\n";

bool IsDigit(char byte) {
    return byte >= '0' && byte <= '9';
}

/** Whether the block fits the pattern; gives its number. */
bool Matches(std::string_view block, uint64_t& number) {
    number = 0;
    for (size_t i = 0; i < blockPattern.size(); ++i) {
        const char wanted = blockPattern[i];
        const bool free = wanted == '#' || wanted == '@';
        if (free ? !IsDigit(block[i]) : block[i] != wanted) {
            return false;
        }
        if (wanted == '@') {
            number = number * 10 + static_cast<uint64_t>(block[i] - '0');
        }
    }
    return true;
}

}  // namespace

size_t BlockSize() {
    return blockPattern.size();
}

void AppendEvent(std::string& text, uint64_t number) {
    std::array<char, eventSize + 1> event{};
    std::snprintf(event.data(), event.size(), "[MotionDetection]\nlabel=door-1\nnumber=%010" PRIu64 "\nregion=3\n.\n",
                  number);
    text.append(event.data(), eventSize);
}

void BlockChecker::Take(std::string_view piece) {
    rest.append(piece);
    size_t begin = 0;
    for (; rest.size() - begin >= blockPattern.size(); begin += blockPattern.size()) {
        Check(std::string_view(rest).substr(begin, blockPattern.size()));
        ++received;
    }
    rest.erase(0, begin);
}

void BlockChecker::Check(std::string_view block) const {
    uint64_t number = 0;
    if (!Matches(block, number)) {
        throw std::runtime_error("event " + std::to_string(received) + " came out as\n" + std::string(block));
    }
    if (number != received) {
        throw std::runtime_error("event " + std::to_string(number) + " came out where event " +
                                 std::to_string(received) + " should have: lost, doubled or out of order");
    }
}

void BlockChecker::ExpectEnd(uint64_t events) const {
    if (received != events || !rest.empty()) {
        throw std::runtime_error("of " + std::to_string(events) + " events " + std::to_string(received) +
                                 " came out, and then\n" + rest);
    }
}

}  // namespace kelto::halvek::bench
