#include "companions/common/EventReader.h"

#include "companions/common/Utf8.h"

#include <algorithm>
#include <utility>

namespace kelto::companion {

namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd";

bool IsLetterOrDigit(char character) {
    return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
           (character >= 'a' && character <= 'z');
}

bool IsAscii(std::string_view bytes) {
    return std::ranges::none_of(bytes, [](char byte) { return (static_cast<unsigned char>(byte) & 0x80U) != 0; });
}

}  // namespace

void EventReader::Take(std::string_view bytes, Milliseconds now) {
    while (!bytes.empty()) {
        const size_t end = bytes.find('\n');
        if (end == std::string_view::npos) {
            KeepUnfinishedLine(bytes);
            break;
        }
        if (unfinishedLine.empty() && end <= largestBlock) {
            TakeLine(bytes.substr(0, end));
        } else {
            KeepUnfinishedLine(bytes.substr(0, end));
            TakeUnfinishedLine();
        }
        bytes.remove_prefix(end + 1);
    }
    if (!isOpen && unfinishedLine.empty()) {
        deadline.reset();
    } else if (!deadline) {
        deadline = now + patience;
    }
}

void EventReader::TakeLeftOver(std::string_view bytes) {
    isReadingLeftOver = true;
    Take(bytes, Milliseconds(0));
    CloseBlock(false);
    isReadingLeftOver = false;
    unfinishedLine.clear();
    isLineTooLong = false;
    deadline.reset();
}

void EventReader::CloseOverdue(Milliseconds now) {
    if (!deadline || now < *deadline) {
        return;
    }
    deadline.reset();
    unfinishedLine.clear();
    isLineTooLong = false;
    CloseBlock(false);
}

void EventReader::TakeLine(std::string_view line) {
    if (line == ".") {
        CloseBlock(true);
    } else if (line.starts_with('[')) {
        TakeHeader(line);
    } else if (isOpen && HasRoomFor(line) && !line.empty() && IsLetterOrDigit(line.front())) {
        if (const size_t equals = line.find('='); equals != std::string_view::npos) {
            TakeProperty(line, equals);
        }
    }
}

void EventReader::TakeUnfinishedLine() {
    const std::string line = std::exchange(unfinishedLine, {});
    if (!std::exchange(isLineTooLong, false)) {
        TakeLine(line);
    } else if (line.starts_with('[')) {
        // A header all the same, of a block that is too large before it has begun.
        CloseBlock(false);
    } else {
        HasRoomFor(line);
    }
}

void EventReader::TakeHeader(std::string_view line) {
    const size_t end = line.find(']');
    if (end == std::string_view::npos) {
        return;
    }
    CloseBlock(false);
    if (end == 1) {
        return;
    }
    event = {};
    event.isStale = isReadingLeftOver;
    event.type = Text(line.substr(1, end - 1));
    isInOrder = true;
    blockSize = 0;
    isOpen = HasRoomFor(line);
    // Its second begins with its header, wherever the one before began.
    deadline.reset();
}

void EventReader::TakeProperty(std::string_view line, size_t equals) {
    SetProperty(Text(line.substr(0, equals)), Text(line.substr(equals + 1)));
}

void EventReader::KeepUnfinishedLine(std::string_view rest) {
    const size_t room = largestBlock - unfinishedLine.size();
    isLineTooLong = isLineTooLong || rest.size() > room;
    unfinishedLine.append(rest.substr(0, room));
}

bool EventReader::HasRoomFor(std::string_view line) {
    blockSize = std::min(blockSize + line.size() + 1, largestBlock + 1);
    event.isCut = event.isCut || blockSize > largestBlock;
    return blockSize <= largestBlock;
}

void EventReader::SetProperty(std::string key, std::string value) {
    ReceivedEvent::Properties& properties = event.properties;
    // The daemon writes them in byte order, so that nearly always the last one tells that this one is new.
    if (!isInOrder || (!properties.empty() && key <= properties.back().first)) {
        isInOrder = false;
        const auto same = std::ranges::find(properties, key, &ReceivedEvent::Properties::value_type::first);
        if (same != properties.end()) {
            same->second = std::move(value);
            return;
        }
    }
    if (properties.size() == mostProperties) {
        event.isCut = true;
        return;
    }
    properties.emplace_back(std::move(key), std::move(value));
}

std::string EventReader::Text(std::string_view bytes) {
    if (IsAscii(bytes)) {
        return std::string(bytes);
    }
    std::string text;
    while (!bytes.empty()) {
        const Utf8Character character = FirstCharacter(bytes);
        event.isLossy = event.isLossy || !character.isValid;
        text.append(character.isValid ? bytes.substr(0, character.length) : replacement);
        bytes.remove_prefix(character.length);
    }
    return text;
}

void EventReader::CloseBlock(bool isFinished) {
    if (!isOpen) {
        return;
    }
    isOpen = false;
    deadline.reset();
    if (isReadingLeftOver && !isFinished) {
        ++tornBlocks;
        return;
    }
    event.isUnfinished = !isFinished;
    taker(event);
}

}  // namespace kelto::companion
