#include "kelto/msgbus/MessageFilter.h"

namespace kelto::msgbus {

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
