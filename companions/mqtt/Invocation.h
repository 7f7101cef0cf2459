#pragma once

#include "companions/mqtt/Settings.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace kelto::halvek::mqtt {

/** The command line is wrong: the text says why. */
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** What the command line asks for. A plain value. */
struct Invocation {
    enum class Deed { Serve, Check, PrintDiscovery, Status, Help, Version };

    Deed deed = Deed::Serve;
    std::string config = Settings::defaultPath;
    bool wantsJson = false;

    /** Throws UsageError. */
    static Invocation Parse(const std::vector<std::string>& arguments);
};

}  // namespace kelto::halvek::mqtt
