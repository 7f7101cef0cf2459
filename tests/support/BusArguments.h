#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

struct sd_bus_message;

namespace kelto::test {

using BusPoints = std::vector<std::pair<double, double>>;

/** An argument of a message as the camera's services use them: b, i, d, s, as or a(dd). */
using BusArgument = std::variant<bool, int32_t, double, std::string, std::vector<std::string>, BusPoints>;
using BusArguments = std::vector<BusArgument>;

/** The signature of arguments, "sib" for instance. */
std::string SignatureOf(const BusArguments& arguments);

/** Appends arguments to a message; throws std::runtime_error. */
void AppendArguments(sd_bus_message* message, const BusArguments& arguments);

/** Reads the arguments of a message, which may be of the types b, i, d and s only; throws std::runtime_error. */
BusArguments ReadArguments(sd_bus_message* message);

/** Throws a negative result of libsystemd as std::runtime_error. */
int CheckBus(int result, const std::string& what);

}  // namespace kelto::test
