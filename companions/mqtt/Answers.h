#pragma once

#include "companions/common/ExitStatus.h"
#include "companions/mqtt/Invocation.h"

#include <string>

namespace kelto::halvek::mqtt {

/** What the verbs say. Each fills in the answer, text or JSON, and throws what has kept it from doing so. */
class Answers {
public:
    static companion::ExitStatus Check(const Invocation& invocation, std::string& answer);
    static companion::ExitStatus PrintDiscovery(const Invocation& invocation, std::string& answer);
    static companion::ExitStatus Status(const Invocation& invocation, std::string& answer);
};

}  // namespace kelto::halvek::mqtt
