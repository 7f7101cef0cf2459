#include "kelto/msgbus/MessageReader.h"

#include "kelto/msgbus/BusConnection.h"
#include "kelto/osa/Exception.h"

#include <string>

namespace kelto::msgbus {

namespace {

constexpr const char* cannotRead = "Cannot read a message";

MsgBusMsg::Values ReadAll(sd_bus_message* message);

template <typename Basic>
Basic ReadBasic(sd_bus_message* message, char type) {
    Basic value{};
    CheckBusResult(sd_bus_message_read_basic(message, type, &value), cannotRead);
    return value;
}

MsgBusMsg::Values ReadContainer(sd_bus_message* message, char type, const char* content) {
    CheckBusResult(sd_bus_message_enter_container(message, type, content), cannotRead);
    MsgBusMsg::Values values = ReadAll(message);
    CheckBusResult(sd_bus_message_exit_container(message), cannotRead);
    return values;
}

MsgBusMsg::Value ReadValue(sd_bus_message* message, char type, const char* content) {
    switch (type) {
        case SD_BUS_TYPE_BOOLEAN:
            return {ReadBasic<int>(message, type) != 0};
        case SD_BUS_TYPE_BYTE:
            return {int32_t{ReadBasic<uint8_t>(message, type)}};
        case SD_BUS_TYPE_INT16:
            return {int32_t{ReadBasic<int16_t>(message, type)}};
        case SD_BUS_TYPE_UINT16:
            return {int32_t{ReadBasic<uint16_t>(message, type)}};
        case SD_BUS_TYPE_INT32:
            return {ReadBasic<int32_t>(message, type)};
        case SD_BUS_TYPE_UINT32:
            return {int64_t{ReadBasic<uint32_t>(message, type)}};
        case SD_BUS_TYPE_INT64:
            return {ReadBasic<int64_t>(message, type)};
        case SD_BUS_TYPE_DOUBLE:
            return {ReadBasic<double>(message, type)};
        case SD_BUS_TYPE_STRING:
        case SD_BUS_TYPE_OBJECT_PATH:
        case SD_BUS_TYPE_SIGNATURE:
            return {std::string(ReadBasic<const char*>(message, type))};
        case SD_BUS_TYPE_ARRAY:
        case SD_BUS_TYPE_STRUCT:
        case SD_BUS_TYPE_DICT_ENTRY:
        case SD_BUS_TYPE_VARIANT:
            return {ReadContainer(message, type, content)};
        default:
            throw osa::Exception("%s: there is no place for type '%c'", cannotRead, type);
    }
}

MsgBusMsg::Values ReadAll(sd_bus_message* message) {
    MsgBusMsg::Values values;
    char type = 0;
    const char* content = nullptr;
    while (CheckBusResult(sd_bus_message_peek_type(message, &type, &content), cannotRead) > 0) {
        values.push_back(ReadValue(message, type, content));
    }
    return values;
}

size_t SizeOf(const MsgBusMsg::Values& values) {
    size_t size = values.size() * sizeof(MsgBusMsg::Value);
    for (const MsgBusMsg::Value& value : values) {
        if (const auto* const text = std::get_if<std::string>(&value.content)) {
            size += text->size();
        } else if (const auto* const members = std::get_if<MsgBusMsg::Values>(&value.content)) {
            size += SizeOf(*members);
        }
    }
    return size;
}

}  // namespace

MsgBusMsg MessageReader::Read(sd_bus_message* message) {
    MsgBusMsg read{.name = sd_bus_message_get_member(message),
                   .domain = sd_bus_message_get_interface(message),
                   .signature = sd_bus_message_get_signature(message, 1),
                   .size = 0,
                   .arguments = ReadAll(message)};
    read.size = sizeof(read) + SizeOf(read.arguments);
    return read;
}

}  // namespace kelto::msgbus
