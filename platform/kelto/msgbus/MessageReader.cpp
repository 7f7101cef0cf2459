#include "kelto/msgbus/MessageReader.h"

#include "kelto/msgbus/BusConnection.h"
#include "kelto/osa/Exception.h"

#include <string>
#include <string_view>

namespace kelto::msgbus {

namespace {

constexpr const char* cannotRead = "Cannot read a message";

/** Thrown when a message takes more memory than it may. */
struct TooLarge {};

template <typename Basic>
Basic ReadBasic(sd_bus_message* message, char type) {
    Basic value{};
    CheckBusResult(sd_bus_message_read_basic(message, type, &value), cannotRead);
    return value;
}

/** Reads the arguments of one message, and reckons what they take in memory while it does. */
class ArgumentReader {
public:
    ArgumentReader(sd_bus_message* source, size_t mostBytes) : message(source), limit(mostBytes) {}

    MsgBusMsg::Values ReadAll() {
        MsgBusMsg::Values values;
        char type = 0;
        const char* content = nullptr;
        while (CheckBusResult(sd_bus_message_peek_type(message, &type, &content), cannotRead) > 0) {
            Add(sizeof(MsgBusMsg::Value));
            values.push_back(ReadValue(type, content));
        }
        return values;
    }

    size_t Size() const { return size; }

private:
    void Add(size_t bytes) {
        size += bytes;
        if (size > limit) {
            throw TooLarge();
        }
    }

    MsgBusMsg::Values ReadContainer(char type, const char* content) {
        CheckBusResult(sd_bus_message_enter_container(message, type, content), cannotRead);
        MsgBusMsg::Values values = ReadAll();
        CheckBusResult(sd_bus_message_exit_container(message), cannotRead);
        return values;
    }

    std::string ReadText(char type) {
        const std::string_view text = ReadBasic<const char*>(message, type);
        Add(text.size());
        return std::string(text);
    }

    MsgBusMsg::Value ReadValue(char type, const char* content) {
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
                return {ReadText(type)};
            case SD_BUS_TYPE_ARRAY:
            case SD_BUS_TYPE_STRUCT:
            case SD_BUS_TYPE_DICT_ENTRY:
            case SD_BUS_TYPE_VARIANT:
                return {ReadContainer(type, content)};
            default:
                throw osa::Exception("%s: there is no place for type '%c'", cannotRead, type);
        }
    }

    sd_bus_message* const message;
    const size_t limit;
    size_t size = 0;
};

}  // namespace

MsgBusMsg MessageReader::Read(sd_bus_message* message, size_t mostBytes) {
    MsgBusMsg read{.name = sd_bus_message_get_member(message),
                   .domain = sd_bus_message_get_interface(message),
                   .signature = sd_bus_message_get_signature(message, 1),
                   .size = 0,
                   .arguments = {}};
    try {
        ArgumentReader reader(message, mostBytes);
        read.arguments = reader.ReadAll();
        read.size = sizeof(read) + reader.Size();
    } catch (const TooLarge&) {
        read.size = sizeof(read) + mostBytes;
    }
    return read;
}

}  // namespace kelto::msgbus
