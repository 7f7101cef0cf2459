#pragma once

#include "camera/service/Action.h"

#include <deque>
#include <string>

namespace kelto::vcam {

/** What the providers were asked to do, oldest first. It remembers the last 100,000 calls. */
class ActionLog {
public:
    void Add(const std::string& method, const std::string& arguments);
    void Clear() { actions.clear(); }
    const std::deque<Action>& GetActions() const { return actions; }

private:
    std::deque<Action> actions;
};

}  // namespace kelto::vcam
