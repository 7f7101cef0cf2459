#include "companions/ctl/Nearest.h"

#include <strings.h>

#include <algorithm>
#include <cctype>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t longest = 200;
constexpr size_t mostChanges = 3;

bool IsSameLetter(char one, char other) {
    return std::tolower(static_cast<unsigned char>(one)) == std::tolower(static_cast<unsigned char>(other));
}

/** How far off a word of that length may be: a third of its letters, so that "on" is not taken for "to". */
size_t Tolerance(size_t length) {
    return std::min(mostChanges, std::max<size_t>(1, length / 3));
}

}  // namespace

std::optional<std::string> Nearest::Find(std::string_view word, const std::vector<std::string>& candidates) {
    size_t least = Tolerance(word.size()) + 1;
    std::optional<std::string> nearest;
    for (const std::string& candidate : candidates) {
        if (word == candidate) {
            return std::nullopt;
        }
        const size_t distance = Distance(word, candidate);
        if (distance < least && distance < candidate.size()) {
            least = distance;
            nearest = candidate;
        }
    }
    return nearest;
}

size_t Nearest::Distance(std::string_view one, std::string_view other) {
    one = one.substr(0, longest);
    other = other.substr(0, longest);
    // Three rows of the table of all beginnings: this one, the one above and the one above that.
    std::vector<size_t> before;
    std::vector<size_t> above(other.size() + 1);
    std::vector<size_t> row(other.size() + 1);
    for (size_t i = 0; i <= other.size(); ++i) {
        above[i] = i;
    }
    for (size_t at = 1; at <= one.size(); ++at) {
        row[0] = at;
        for (size_t to = 1; to <= other.size(); ++to) {
            const bool isSame = IsSameLetter(one[at - 1], other[to - 1]);
            row[to] = std::min({above[to] + 1, row[to - 1] + 1, above[to - 1] + (isSame ? 0U : 1U)});
            const bool isSwapped = at > 1 && to > 1 && IsSameLetter(one[at - 1], other[to - 2]) &&
                                   IsSameLetter(one[at - 2], other[to - 1]);
            if (isSwapped) {
                row[to] = std::min(row[to], before[to - 2] + 1);
            }
        }
        before = std::exchange(above, row);
    }
    return above.back();
}

bool Nearest::IsEqualButForCase(std::string_view one, std::string_view other) {
    return one.size() == other.size() && strncasecmp(one.data(), other.data(), one.size()) == 0;
}

}  // namespace kelto::halvek::ctl
