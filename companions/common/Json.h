#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kelto::companion {

/**
 * Writes one JSON text, from front to back, without blanks.
 *
 * Whoever calls closes what he opens and puts a key before each value of an object. Texts may hold anything: control
 * characters are escaped, and bytes that are no UTF-8 become U+FFFD. One thread at a time.
 */
class Json {
public:
    Json& BeginObject() { return Open('{'); }
    Json& EndObject() { return Close('}'); }
    Json& BeginArray() { return Open('['); }
    Json& EndArray() { return Close(']'); }
    Json& Key(std::string_view name);

    Json& String(std::string_view text);
    Json& Number(int64_t number) { return Plain(std::to_string(number)); }
    Json& Bool(bool value) { return Plain(value ? "true" : "false"); }
    Json& Null() { return Plain("null"); }

    /** What has been written so far. */
    const std::string& Text() const { return text; }

private:
    Json& Open(char bracket);
    Json& Close(char bracket);
    Json& Plain(std::string_view word);
    void Separate();
    void AppendQuoted(std::string_view value);

    std::string text;
    bool needsComma = false;
};

}  // namespace kelto::companion
