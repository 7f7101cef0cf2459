#include "companions/common/EventReader.h"
#include "companions/common/Utf8.h"

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion {

namespace {

/** Ends the process, and so fails the run, if something does not hold. */
void Require(bool condition, const char* text) {
    if (!condition) {
        std::cerr << "does not hold: " << text << std::endl;
        std::abort();
    }
}

void CheckText(std::string_view text) {
    Require(text.find('\n') == std::string_view::npos, "a text is on one line");
    while (!text.empty()) {
        const Utf8Character character = FirstCharacter(text);
        Require(character.isValid, "a text is UTF-8");
        text.remove_prefix(character.length);
    }
}

std::string Checked(const ReceivedEvent& event) {
    Require(!event.type.empty(), "an event has a type");
    Require(event.properties.size() <= EventReader::mostProperties, "an event has no more properties than it may");
    CheckText(event.type);
    std::set<std::string> keys;
    size_t size = event.type.size();
    std::string all = event.type + (event.isLossy ? " lossy" : "") + (event.isCut ? " cut" : "") + "\n";
    for (const auto& [key, value] : event.properties) {
        CheckText(key);
        CheckText(value);
        Require(keys.insert(key).second, "no key comes twice");
        size += key.size() + value.size();
        all.append(key).append("=").append(value).append("\n");
    }
    // A byte that is no UTF-8 becomes three.
    Require(size <= 3 * EventReader::largestBlock, "an event is no larger than it may be");
    return all;
}

std::vector<std::string> EventsOf(std::string_view text, size_t piece) {
    std::vector<std::string> events;
    EventReader reader([&](const ReceivedEvent& event) { events.push_back(Checked(event)); });
    for (size_t from = 0; from < text.size(); from += piece) {
        reader.Take(text.substr(from, piece), EventReader::Milliseconds(0));
    }
    reader.CloseOverdue(EventReader::Milliseconds(1000));
    Require(!reader.Deadline(), "nothing is open a second later");
    return events;
}

}  // namespace

}  // namespace kelto::companion

/** Whatever comes out of an output pipe, what is made of it are events within their limits, in pieces of any size. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelto::companion;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::vector<std::string> events = EventsOf(text, size + 1);
    Require(EventsOf(text, 7) == events, "pieces make the same events");
    EventReader reader([](const ReceivedEvent& event) {
        Require(event.isStale && !event.isUnfinished, "a left-over has whole and stale events only");
    });
    reader.TakeLeftOver(text);
    Require(!reader.Deadline(), "nothing of a left-over stays open");
    return 0;
}
