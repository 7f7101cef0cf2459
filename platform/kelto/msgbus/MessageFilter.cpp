#include "kelto/msgbus/MessageFilter.h"

#include <tuple>

namespace kelto::msgbus {

bool MessageFilter::operator<(const MessageFilter& other) const {
    return std::tie(name, domain, sender, path) < std::tie(other.name, other.domain, other.sender, other.path);
}

std::string MessageFilter::ToMatchRule() const {
    std::string rule = "type='signal'";
    rule.append(",interface='").append(domain).append("',member='").append(name).append("'");
    if (!sender.empty()) {
        rule.append(",sender='").append(sender).append("'");
    }
    if (!path.empty()) {
        rule.append(",path='").append(path).append("'");
    }
    return rule;
}

}  // namespace kelto::msgbus
