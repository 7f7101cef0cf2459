#include "companions/ctl/recording/RecordedInput.h"

#include "companions/common/ClockState.h"
#include "companions/common/Json.h"

#include <charconv>
#include <stdexcept>

namespace kelto::halvek::ctl {

namespace {

constexpr size_t hexDigits = 4;
constexpr int hexadecimal = 16;

/** Reads objects of texts, whole numbers, truth values and such objects, without blanks: what companion::Json writes.
 */
class ObjectReader {
public:
    explicit ObjectReader(std::string_view line) : rest(line) {}

    RecordedInput Read() {
        RecordedInput input;
        Expect('{');
        do {
            const std::string key = Text();
            Expect(':');
            ReadValue(key, input);
        } while (TakeIf(','));
        Expect('}');
        if (!rest.empty()) {
            Refuse();
        }
        return input;
    }

private:
    [[noreturn]] static void Refuse() { throw std::invalid_argument("no line of a recording"); }

    void ReadValue(const std::string& key, RecordedInput& input) {
        if (key == "kind") {
            input.kind = Text();
        } else if (key == "t") {
            static_cast<void>(Text());
        } else if (key == "ms") {
            input.time = Number();
        } else if (key == "mono") {
            input.sinceBoot = Number();
        } else if (key == "boot") {
            input.boot = Text();
        } else if (key == "seq") {
            input.number = static_cast<uint64_t>(Number());
        } else if (key == "type") {
            input.type = Text();
        } else if (key == "props") {
            ReadProperties(input);
        } else if (key == "amount") {
            input.amount = Number();
        } else if (key == "bus") {
            input.hasBus = Truth();
        } else if (key == "state") {
            input.state = Number();
        } else {
            PassOver();
        }
    }

    /** A value of a field that is not known. */
    void PassOver() {
        if (rest.starts_with('"')) {
            static_cast<void>(Text());
        } else if (rest.starts_with('{')) {
            RecordedInput ignored;
            ReadProperties(ignored);
        } else if (rest.starts_with('t') || rest.starts_with('f')) {
            static_cast<void>(Truth());
        } else {
            static_cast<void>(Number());
        }
    }

    bool Truth() {
        for (const std::string_view word : {"true", "false"}) {
            if (rest.starts_with(word)) {
                rest.remove_prefix(word.size());
                return word == "true";
            }
        }
        Refuse();
    }

    void ReadProperties(RecordedInput& input) {
        Expect('{');
        if (TakeIf('}')) {
            return;
        }
        do {
            const std::string key = Text();
            Expect(':');
            input.properties[key] = Text();
        } while (TakeIf(','));
        Expect('}');
    }

    bool TakeIf(char wanted) {
        if (rest.empty() || rest.front() != wanted) {
            return false;
        }
        rest.remove_prefix(1);
        return true;
    }

    void Expect(char wanted) {
        if (!TakeIf(wanted)) {
            Refuse();
        }
    }

    int64_t Number() {
        int64_t number = 0;
        const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
        if (error != std::errc()) {
            Refuse();
        }
        rest.remove_prefix(static_cast<size_t>(end - rest.data()));
        return number;
    }

    std::string Text() {
        Expect('"');
        std::string text;
        while (!rest.empty() && rest.front() != '"') {
            const char character = rest.front();
            rest.remove_prefix(1);
            if (character == '\\') {
                TakeEscape(text);
            } else {
                text.push_back(character);
            }
        }
        Expect('"');
        return text;
    }

    void TakeEscape(std::string& text) {
        if (TakeIf('u')) {
            TakeControl(text);
        } else if (!rest.empty() && (rest.front() == '"' || rest.front() == '\\')) {
            text.push_back(rest.front());
            rest.remove_prefix(1);
        } else {
            Refuse();
        }
    }

    /** Only control characters are written so. Those above ASCII take two bytes. */
    void TakeControl(std::string& text) {
        unsigned code = 0;
        if (rest.size() < hexDigits ||
            std::from_chars(rest.data(), rest.data() + hexDigits, code, hexadecimal).ptr != rest.data() + hexDigits ||
            code > 0xff) {
            Refuse();
        }
        rest.remove_prefix(hexDigits);
        if (code < 0x80) {
            text.push_back(static_cast<char>(code));
        } else {
            text.push_back(static_cast<char>(0xc0U | code >> 6U));
            text.push_back(static_cast<char>(0x80U | (code & 0x3fU)));
        }
    }

    std::string_view rest;
};

}  // namespace

std::string RecordedInput::Line() const {
    companion::Json json;
    json.BeginObject();
    json.Key("kind").String(kind);
    json.Key("t").String(companion::ClockState::IsoTime(time));
    json.Key("ms").Number(time);
    json.Key("mono").Number(sinceBoot);
    json.Key("boot").String(boot);
    json.Key("seq").Number(static_cast<int64_t>(number));
    if (hasBus) {
        json.Key("bus").Bool(true);
    }
    if (state) {
        json.Key("state").Number(*state);
    }
    if (!type.empty()) {
        json.Key("type").String(type);
        json.Key("props").BeginObject();
        for (const auto& [key, value] : properties) {
            json.Key(key).String(value);
        }
        json.EndObject();
    }
    if (amount != 0) {
        json.Key("amount").Number(amount);
    }
    return json.EndObject().Text() + "\n";
}

std::optional<RecordedInput> RecordedInput::Parse(std::string_view line) {
    try {
        return ObjectReader(line).Read();
    } catch (const std::invalid_argument&) {
        return std::nullopt;
    }
}

}  // namespace kelto::halvek::ctl
