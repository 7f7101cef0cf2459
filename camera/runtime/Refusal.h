#pragma once

#include <stdexcept>
#include <string>

namespace kelto::vcam {

/**
 * What was asked for cannot be done, and nothing has been. A service answers with the bus error
 * "com.kelto.Error.<name>" and the text, which is for people.
 */
class Refusal : public std::runtime_error {
public:
    Refusal(const std::string& refusalName, const std::string& text) : std::runtime_error(text), name(refusalName) {}

    const std::string& GetName() const { return name; }

private:
    std::string name;
};

}  // namespace kelto::vcam
