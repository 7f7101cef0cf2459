#include "tests/support/BusArguments.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <stdexcept>

namespace kelto::test {

namespace {

struct Append {
    sd_bus_message* message;

    int operator()(bool value) const { return sd_bus_message_append(message, "b", static_cast<int>(value)); }
    int operator()(int32_t value) const { return sd_bus_message_append(message, "i", value); }
    int operator()(double value) const { return sd_bus_message_append(message, "d", value); }
    int operator()(const std::string& value) const { return sd_bus_message_append(message, "s", value.c_str()); }

    int operator()(const std::vector<std::string>& values) const {
        CheckBus(sd_bus_message_open_container(message, 'a', "s"), "open an array");
        for (const std::string& value : values) {
            CheckBus((*this)(value), "append to an array");
        }
        return sd_bus_message_close_container(message);
    }

    int operator()(const BusPoints& points) const {
        CheckBus(sd_bus_message_open_container(message, 'a', "(dd)"), "open an array");
        for (const auto& [x, y] : points) {
            CheckBus(sd_bus_message_append(message, "(dd)", x, y), "append to an array");
        }
        return sd_bus_message_close_container(message);
    }
};

BusArgument ReadArgument(sd_bus_message* message, char type) {
    int32_t number = 0;
    double real = 0;
    const char* text = nullptr;
    switch (type) {
        case 'b':
            CheckBus(sd_bus_message_read_basic(message, type, &number), "read a bool");
            return number != 0;
        case 'i':
            CheckBus(sd_bus_message_read_basic(message, type, &number), "read an integer");
            return number;
        case 'd':
            CheckBus(sd_bus_message_read_basic(message, type, &real), "read a double");
            return real;
        case 's':
            CheckBus(sd_bus_message_read_basic(message, type, &text), "read a string");
            return std::string(text);
        default:
            throw std::runtime_error(std::string("cannot read the type ") + type);
    }
}

}  // namespace

int CheckBus(int result, const std::string& what) {
    if (result < 0) {
        throw std::runtime_error("cannot " + what + ": " + std::strerror(-result));
    }
    return result;
}

std::string SignatureOf(const BusArguments& arguments) {
    constexpr const char* signatures[] = {"b", "i", "d", "s", "as", "a(dd)"};
    std::string signature;
    for (const BusArgument& argument : arguments) {
        signature += signatures[argument.index()];
    }
    return signature;
}

void AppendArguments(sd_bus_message* message, const BusArguments& arguments) {
    for (const BusArgument& argument : arguments) {
        CheckBus(std::visit(Append{message}, argument), "append an argument");
    }
}

BusArguments ReadArguments(sd_bus_message* message) {
    BusArguments arguments;
    char type = 0;
    while (CheckBus(sd_bus_message_peek_type(message, &type, nullptr), "look at an argument") > 0) {
        arguments.push_back(ReadArgument(message, type));
    }
    return arguments;
}

}  // namespace kelto::test
