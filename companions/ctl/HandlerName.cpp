#include "companions/ctl/HandlerName.h"

#include "companions/ctl/Failure.h"

#include <string_view>

namespace kelto::halvek::ctl {

namespace {

constexpr std::string_view prefix = "Events/";

}  // namespace

std::string HandlerName::Group(const std::string& name) {
    return name.starts_with(prefix) ? name : std::string(prefix) + name;
}

std::string HandlerName::Short(const std::string& group) {
    return group.starts_with(prefix) ? group.substr(prefix.size()) : group;
}

std::string HandlerName::Find(const ModelAnswers& model, const std::string& name) {
    std::string group = Group(name);
    if (model.FindHandler(group) == nullptr) {
        throw UsageError("the settings have no handler " + name);
    }
    return group;
}

}  // namespace kelto::halvek::ctl
