#include "tests/support/EnvironmentVariable.h"

#include <cstdlib>

namespace kelto::test {

namespace {

void SetVariable(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
        setenv(name.c_str(), value->c_str(), 1);
    } else {
        unsetenv(name.c_str());
    }
}

}  // namespace

EnvironmentVariable::EnvironmentVariable(const std::string& variable, const std::optional<std::string>& newValue)
    : name(variable) {
    if (const char* const value = std::getenv(name.c_str())) {
        before = value;
    }
    SetVariable(name, newValue);
}

EnvironmentVariable::~EnvironmentVariable() {
    SetVariable(name, before);
}

}  // namespace kelto::test
