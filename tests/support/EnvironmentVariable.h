#pragma once

#include <optional>
#include <string>

namespace kelto::test {

/** Sets a variable of the environment, or takes it away, for the length of a scope. */
class EnvironmentVariable {
public:
    /** @param newValue nothing to take the variable away */
    EnvironmentVariable(const std::string& variable, const std::optional<std::string>& newValue);
    ~EnvironmentVariable();
    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

private:
    std::string name;
    std::optional<std::string> before;
};

}  // namespace kelto::test
