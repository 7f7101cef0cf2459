#include "companions/common/PostedEvent.h"

#include "companions/common/PostRefusal.h"

#include <algorithm>
#include <optional>

namespace kelto::companion {

namespace {

[[noreturn]] void Refuse(const std::string& text) {
    throw PostRefusal(PostRefusal::Reason::Grammar, text);
}

/** Whatever the locale is. */
bool IsLetterOrDigit(char character) {
    return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
           (character >= 'a' && character <= 'z');
}

bool HasLineBreak(std::string_view text) {
    return text.find('\n') != std::string_view::npos;
}

/** The lines of a text, without their line breaks. */
class Lines {
public:
    explicit Lines(std::string_view all) : rest(all) {}

    /** False behind the last line. */
    bool Next(std::string_view& line) {
        if (rest.empty()) {
            return false;
        }
        const size_t end = rest.find('\n');
        line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        ++number;
        return true;
    }

    size_t Number() const { return number; }

private:
    std::string_view rest;
    size_t number = 0;
};

PostedEvent ParseHeader(std::string_view line) {
    if (line.front() != '[') {
        Refuse("a block begins with its type in brackets");
    }
    if (line.size() < 2 || line.back() != ']') {
        Refuse("a header ends with \"]\"");
    }
    return PostedEvent(line.substr(1, line.size() - 2));
}

/** Takes one line in; the event goes to the others when it is whole. */
void TakeLine(std::string_view line, std::optional<PostedEvent>& begun, std::vector<PostedEvent>& events) {
    if (line.empty()) {
        Refuse("an empty line would end the daemon's reading for good");
    }
    if (!begun) {
        begun = ParseHeader(line);
    } else if (line == ".") {
        static_cast<void>(begun->Block());
        events.push_back(std::move(*begun));
        begun.reset();
    } else if (line.front() == '[') {
        Refuse("the block before has no end, a line with a full stop");
    } else {
        begun->SetByWord(line);
    }
}

}  // namespace

PostedEvent::PostedEvent(std::string_view eventType) : type(eventType) {
    if (type.empty()) {
        Refuse("an event needs a type");
    }
    if (type.find(']') != std::string::npos) {
        Refuse("an event's type has no \"]\"");
    }
    if (HasLineBreak(type)) {
        Refuse("an event has no line breaks");
    }
}

void PostedEvent::Set(std::string_view key, std::string_view value) {
    if (key.empty() || !IsLetterOrDigit(key.front())) {
        Refuse("a property's key begins with a letter or digit");
    }
    if (key.find('=') != std::string_view::npos) {
        Refuse("a property's key has no \"=\"");
    }
    if (HasLineBreak(key) || HasLineBreak(value)) {
        Refuse("an event has no line breaks");
    }
    const auto found =
        std::find_if(properties.begin(), properties.end(), [&](const Property& one) { return one.first == key; });
    if (found == properties.end()) {
        properties.emplace_back(key, value);
    } else {
        found->second = value;
    }
}

void PostedEvent::SetByWord(std::string_view word) {
    const size_t equals = word.find('=');
    if (equals == std::string_view::npos) {
        Refuse("a property is written key=value, not " + std::string(word));
    }
    Set(word.substr(0, equals), word.substr(equals + 1));
}

std::string PostedEvent::Block() const {
    std::string block = "[" + type + "]\n";
    for (const auto& [key, value] : properties) {
        block.append(key).append(1, '=').append(value).append(1, '\n');
    }
    block.append(".\n");
    if (block.size() > mostBytes) {
        throw PostRefusal(PostRefusal::Reason::Size, "an event of " + std::to_string(block.size()) +
                                                         " bytes, more than the " + std::to_string(mostBytes) +
                                                         " that are written in one piece");
    }
    return block;
}

std::vector<PostedEvent> PostedEvent::ParseAll(std::string_view text) {
    std::vector<PostedEvent> events;
    std::optional<PostedEvent> begun;
    Lines lines(text);
    std::string_view line;
    try {
        while (lines.Next(line)) {
            TakeLine(line, begun, events);
        }
        if (begun) {
            Refuse("the last block has no end, a line with a full stop");
        }
    } catch (const PostRefusal& refusal) {
        throw PostRefusal(refusal.GetReason(), "line " + std::to_string(lines.Number()) + ": " + refusal.what());
    }
    return events;
}

}  // namespace kelto::companion
