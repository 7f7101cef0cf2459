#include "camera/bus/Arguments.h"

#include "camera/runtime/Failure.h"

#include <array>
#include <cstdio>

namespace kelto::vcam {

namespace {

constexpr const char* unreadable = "Cannot read an argument";

std::string NumberAsText(double number) {
    std::array<char, 32> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%g", number));
    return text.data();
}

}  // namespace

std::string Arguments::ReadString() {
    const char* value = nullptr;
    Check(sd_bus_message_read(message, "s", &value), unreadable);
    return value;
}

int32_t Arguments::ReadInt() {
    int32_t value = 0;
    Check(sd_bus_message_read(message, "i", &value), unreadable);
    return value;
}

bool Arguments::ReadBool() {
    int value = 0;
    Check(sd_bus_message_read(message, "b", &value), unreadable);
    return value != 0;
}

double Arguments::ReadDouble() {
    double value = 0;
    Check(sd_bus_message_read(message, "d", &value), unreadable);
    return value;
}

void Arguments::CopyTo(sd_bus_message* target) {
    Check(sd_bus_message_copy(target, message, 1), unreadable);
}

std::string Arguments::AsText(sd_bus_message* call) {
    Arguments arguments(call);
    std::string text;
    char type = 0;
    while (Check(sd_bus_message_peek_type(call, &type, nullptr), unreadable) > 0) {
        text += text.empty() ? "" : ", ";
        switch (type) {
            case 's':
                text += arguments.ReadString();
                break;
            case 'i':
                text += std::to_string(arguments.ReadInt());
                break;
            case 'b':
                text += arguments.ReadBool() ? "true" : "false";
                break;
            case 'd':
                text += NumberAsText(arguments.ReadDouble());
                break;
            default:
                throw Failure(unreadable);
        }
    }
    Check(sd_bus_message_rewind(call, 1), unreadable);
    return text;
}

}  // namespace kelto::vcam
