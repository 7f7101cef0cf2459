#pragma once

#include <stdexcept>
#include <string>

namespace kelto::vcam {

/** Thrown by a method to answer its call with the bus error "com.kelto.Error.<name>" and a text for people. */
class MethodError : public std::runtime_error {
public:
    MethodError(const std::string& name, const std::string& text)
        : std::runtime_error(text), busName("com.kelto.Error." + name) {}

    const std::string& GetBusName() const { return busName; }

private:
    std::string busName;
};

}  // namespace kelto::vcam
