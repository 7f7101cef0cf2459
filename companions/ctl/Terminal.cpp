#include "companions/ctl/Terminal.h"

#include "companions/common/Printable.h"

#include <strings.h>
#include <unistd.h>

#include <cstdlib>

namespace kelto::halvek::ctl {

namespace {

const char* Code(Terminal::Colour colour) {
    switch (colour) {
        case Terminal::Colour::Red:
            return "\x1b[31m";
        case Terminal::Colour::Yellow:
            return "\x1b[33m";
        case Terminal::Colour::Green:
            return "\x1b[32m";
        case Terminal::Colour::Cyan:
            return "\x1b[36m";
        case Terminal::Colour::Bold:
            return "\x1b[1m";
        case Terminal::Colour::Faint:
            return "\x1b[2m";
    }
    return "";
}

}  // namespace

std::string Terminal::Escape(std::string_view text) {
    return companion::Printable(text);
}

std::string Terminal::ShownValue(std::string_view key, std::string_view value) {
    return IsSecret(key) ? "***" : Escape(value);
}

bool Terminal::IsSecret(std::string_view key) {
    constexpr std::string_view secret = "Password";
    return key.size() == secret.size() && strncasecmp(key.data(), secret.data(), secret.size()) == 0;
}

std::string Terminal::Coloured(Colour colour, std::string_view text) {
    if (!HasColours()) {
        return std::string(text);
    }
    return Code(colour) + std::string(text) + "\x1b[0m";
}

bool Terminal::HasColours() {
    const char* const refusal = std::getenv("NO_COLOR");
    return (refusal == nullptr || *refusal == '\0') && isatty(STDOUT_FILENO) == 1;
}

void Terminal::Complain(std::string_view text) {
    const std::string line = "halvekctl: " + Escape(text) + "\n";
    static_cast<void>(!write(STDERR_FILENO, line.data(), line.size()));
}

}  // namespace kelto::halvek::ctl
