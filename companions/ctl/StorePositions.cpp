#include "companions/ctl/StorePositions.h"

#include <string_view>

namespace kelto::halvek::ctl {

namespace {

std::string_view Trim(std::string_view text) {
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

}  // namespace

StorePositions::StorePositions(const Store& store) {
    for (const Store::File& file : store.files) {
        std::string group;
        unsigned number = 0;
        std::string_view rest = file.text;
        while (!rest.empty()) {
            const size_t end = rest.find('\n');
            const std::string_view line = rest.substr(0, end);
            const std::string_view text = Trim(line);
            rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
            ++number;
            if (text.empty() || text.front() == '#' || text.front() == ';') {
                continue;
            }
            const Position position{file.path, number, static_cast<unsigned>(text.data() - line.data()) + 1};
            if (text.front() == '[') {
                group = text.substr(1, text.size() - 2);
                positions.emplace(std::pair(group, std::string()), position);
            } else {
                positions.insert_or_assign(std::pair(group, std::string(Trim(text.substr(0, text.find('='))))),
                                           position);
            }
        }
    }
}

std::optional<Position> StorePositions::Find(const std::string& group, const std::string& key) const {
    const auto found = positions.find({group, key});
    return found == positions.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace kelto::halvek::ctl
