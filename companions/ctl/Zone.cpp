#include "companions/ctl/Zone.h"

#include "companions/common/UniqueFd.h"

#include <fcntl.h>
#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* defaultFolder = "/usr/share/zoneinfo";
constexpr std::string_view magic = "TZif";

#define HALVEKCTL_CLOCK "([01]?[0-9]|2[0-4])(:[0-5][0-9](:[0-5][0-9])?)?"
#define HALVEKCTL_NAME "([A-Za-z]{3,}|<[A-Za-z0-9+-]{3,}>)"
#define HALVEKCTL_DAY "(M([1-9]|1[0-2])\\.[1-5]\\.[0-6]|J?[0-9]{1,3})(/[+-]?[0-9]{1,3}(:[0-5][0-9](:[0-5][0-9])?)?)?"
constexpr const char* rule = "^" HALVEKCTL_NAME "[+-]?" HALVEKCTL_CLOCK "(" HALVEKCTL_NAME "([+-]?" HALVEKCTL_CLOCK
                             ")?(," HALVEKCTL_DAY "," HALVEKCTL_DAY ")?)?$";
#undef HALVEKCTL_CLOCK
#undef HALVEKCTL_NAME
#undef HALVEKCTL_DAY

bool IsRule(const std::string& name) {
    regex_t pattern;
    if (regcomp(&pattern, rule, REG_EXTENDED | REG_NOSUB) != 0) {
        return false;
    }
    const bool matches = regexec(&pattern, name.c_str(), 0, nullptr, 0) == 0;
    regfree(&pattern);
    return matches;
}

bool IsZoneFile(const std::string& path) {
    const companion::UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status {};
    std::array<char, magic.size()> begin{};
    return file.IsOpen() && fstat(file.Get(), &status) == 0 && S_ISREG(status.st_mode) &&
           read(file.Get(), begin.data(), begin.size()) == static_cast<ssize_t>(begin.size()) &&
           std::string_view(begin.data(), begin.size()) == magic;
}

std::string PathOf(const std::string& name) {
    if (name.front() == '/') {
        return name;
    }
    const char* const folder = std::getenv("TZDIR");
    return std::string(folder == nullptr || *folder == '\0' ? defaultFolder : folder) + "/" + name;
}

}  // namespace

bool Zone::Exists(const std::string& name) {
    const std::string zone = name.substr(name.find_first_not_of(':') == 1 ? 1 : 0);
    // UTC is what the C library falls back to, so that it needs no data.
    return !zone.empty() && zone.find("..") == std::string::npos &&
           (zone == "UTC" || IsZoneFile(PathOf(zone)) || IsRule(zone));
}

}  // namespace kelto::halvek::ctl
