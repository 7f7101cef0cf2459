#pragma once

#include "companions/ctl/Model.h"

#include <string>

namespace kelto::halvek::ctl {

/** How people call handlers: the group "Events/Handler#front" is "Handler#front" for short. */
class HandlerName {
public:
    /** The group of a handler that is called either way. */
    static std::string Group(const std::string& name);

    /** The short name of a handler's or source's group; any other text as it is. Not escaped. */
    static std::string Short(const std::string& group);

    /** The group. Throws UsageError if the settings have no such handler. */
    static std::string Find(const ModelAnswers& model, const std::string& name);
};

}  // namespace kelto::halvek::ctl
