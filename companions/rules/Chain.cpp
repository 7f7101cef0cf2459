#include "companions/rules/Chain.h"

#include "companions/common/PostedEvent.h"

#include <algorithm>

namespace kelto::companion::rules {

namespace {

/** A longer one is that of no event that can be posted, and would only take its time. */
constexpr size_t longest = PostedEvent::mostBytes;

std::string_view TakeName(std::string_view& chain) {
    const std::string_view name = chain.substr(0, chain.find(','));
    chain.remove_prefix(std::min(name.size() + 1, chain.size()));
    return name;
}

}  // namespace

std::string Chain::Of(const ReceivedEvent& event) {
    const std::string* const chain = event.Find(key);
    return chain == nullptr ? std::string() : *chain;
}

bool Chain::Holds(std::string_view chain, std::string_view name) {
    while (!chain.empty()) {
        if (TakeName(chain) == name) {
            return true;
        }
    }
    return false;
}

std::string Chain::Joined(std::string_view first, std::string_view second) {
    std::string joined(first);
    if (first.size() + second.size() > longest) {
        return joined.append(",").append(second);
    }
    while (!second.empty()) {
        const std::string_view name = TakeName(second);
        if (!name.empty() && !Holds(first, name)) {
            joined.append(joined.empty() ? "" : ",").append(name);
        }
    }
    return joined;
}

}  // namespace kelto::companion::rules
