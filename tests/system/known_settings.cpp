// Prints what the daemon knows of its settings, as JSON, for tests that compare it with the manual.

#include "monitor/KnownSettings.h"

#include <iostream>
#include <string>

namespace {

using namespace kelto::halvek;

/** Names, defaults and units hold nothing that JSON would want escaped. */
std::string Quoted(const char* text) {
    return text == nullptr ? "null" : "\"" + std::string(text) + "\"";
}

const char* Word(bool value) {
    return value ? "true" : "false";
}

struct Printer {
    void operator()(const TextKey& key) const {
        std::cout << R"({"name": )" << Quoted(key.name) << R"(, "kind": "text", "required": )" << Word(key.required)
                  << R"(, "default": )" << Quoted(key.absent) << "}";
    }

    void operator()(const IntegerKey& key) const {
        std::cout << R"({"name": )" << Quoted(key.name) << R"(, "kind": "integer", "required": false, "default": ")"
                  << key.absent << R"(", "lowest": )" << key.lowest << R"(, "highest": )" << key.highest
                  << R"(, "unit": )" << Quoted(key.unit) << R"(, "default if unreadable": )"
                  << Word(key.defaultIfUnreadable) << R"(, "default if out of range": )"
                  << Word(key.defaultIfOutOfRange) << "}";
    }

    void operator()(const BooleanKey& key) const {
        std::cout << R"({"name": )" << Quoted(key.name) << R"(, "kind": "boolean", "required": )"
                  << Word(!key.absent.has_value()) << R"(, "default": )"
                  << (key.absent.has_value() ? Quoted(Word(*key.absent)) : "null") << "}";
    }
};

}  // namespace

int main() {
    std::cout << "[";
    const char* separator = "";
    for (const KnownGroup& group : KnownSettings()) {
        std::cout << separator << "\n{"
                  << R"("pattern": )" << Quoted(group.pattern.c_str()) << R"(, "keys": [)";
        const char* between = "\n";
        for (const SettingsKey& key : group.keys) {
            std::cout << between << "  ";
            std::visit(Printer(), key);
            between = ",\n";
        }
        std::cout << "]}";
        separator = ",";
    }
    std::cout << "\n]\n";
}
