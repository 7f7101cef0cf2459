#include "handler/SizeWithSuffix.h"

#include "kelto/core/StringUtil.h"

namespace kelto::halvek::handler {

namespace {

uint64_t UnitOf(char letter) {
    constexpr uint64_t kilo = 1024;
    switch (letter) {
        case 'k':
        case 'K':
            return kilo;
        case 'm':
        case 'M':
            return kilo * kilo;
        case 'g':
        case 'G':
            return kilo * kilo * kilo;
        default:
            return kilo * kilo * kilo * kilo;
    }
}

}  // namespace

uint64_t ParseSizeWithSuffix(const std::string& text) {
    if (text.empty() || text.front() == '0') {
        return 0;
    }
    const size_t suffix = text.find_first_of("kKmMgGtT");
    if (suffix == std::string::npos || suffix + 1 != text.size()) {
        return 0;
    }
    int32_t number = 0;
    core::StringUtil::TryParse(text.substr(0, suffix), number);
    return number < 0 ? 0 : static_cast<uint64_t>(number) * UnitOf(text.back());
}

}  // namespace kelto::halvek::handler
