#include "companions/rules/Windows.h"

#include <algorithm>
#include <iterator>

namespace kelto::companion::rules {

namespace {

using Milliseconds = Rule::Milliseconds;

// What ends at a time is over a moment later: an event at that very time still belongs to it.
constexpr Milliseconds moment{1};

void Earliest(std::optional<Milliseconds>& end, Milliseconds other) {
    end = end ? std::min(*end, other) : other;
}

void ClearOver(Window& window, Milliseconds now) {
    const Rule& rule = *window.rule;
    while (!window.times.empty() && now - window.times.front() > rule.span) {
        window.times.pop_front();
    }
    if (rule.kind == Rule::Kind::Then && window.openedAt && now - *window.openedAt > rule.span) {
        window.openedAt.reset();
    }
    if (!window.openedAt) {
        window.first = {};
    }
    if (window.heldUntil && now >= *window.heldUntil) {
        window.heldUntil.reset();
    }
}

std::optional<Milliseconds> EndOf(const Window& window) {
    std::optional<Milliseconds> end = window.heldUntil;
    if (!window.times.empty()) {
        Earliest(end, window.times.back() + window.rule->span + moment);
    }
    if (window.openedAt) {
        const bool isDeadline = window.rule->kind == Rule::Kind::Unless;
        Earliest(end, *window.openedAt + window.rule->span + (isDeadline ? Milliseconds(0) : moment));
    }
    return end;
}

}  // namespace

size_t Remembered::Size() const {
    size_t size = chain.size();
    for (const auto& [key, value] : properties) {
        size += key.size() + value.size();
    }
    return size;
}

Window* Windows::Find(const Rule& rule, const std::string& key) {
    const auto found = byName.find({&rule, key});
    return found == byName.end() ? nullptr : found->second;
}

Window& Windows::FindOrMake(const Rule& rule, const std::string& key) {
    if (Window* const found = Find(rule, key)) {
        return *found;
    }
    Window& window = open.emplace_back();
    window.rule = &rule;
    window.key = key;
    window.place = std::prev(open.end());
    window.serial = ++lastSerial;
    byName.emplace(Name(&rule, window.key), &window);
    return window;
}

void Windows::MakeYoungest(Window& window) {
    SetEnd(window, std::nullopt);
    window.serial = ++lastSerial;
    MoveToEndOf(open, window);
}

void Windows::Settle(Window& window, Milliseconds now) {
    ClearOver(window, now);
    bytes -= window.size;
    window.size = window.key.size() + window.first.Size() + window.times.size() * sizeof(Milliseconds);
    bytes += window.size;
    const std::optional<Milliseconds> end = EndOf(window);
    SetEnd(window, end);
    if (!end && window.suppressed == 0) {
        Remove(window);
        return;
    }
    if (window.isDormant != !end) {
        MoveToEndOf(end ? open : dormant, window);
    }
    MakeRoom(window);
}

std::optional<Milliseconds> Windows::NextEnd() const {
    return byEnd.empty() ? std::nullopt : std::optional(byEnd.begin()->first.first);
}

Window* Windows::NextOver(Milliseconds now) const {
    return byEnd.empty() || byEnd.begin()->first.first > now ? nullptr : byEnd.begin()->second;
}

void Windows::RemoveIf(const std::function<bool(const Rule& rule)>& isGone) {
    for (std::list<Window>* const list : {&open, &dormant}) {
        for (auto next = list->begin(); next != list->end();) {
            Window& window = *next++;
            if (isGone(*window.rule)) {
                Remove(window);
            }
        }
    }
}

void Windows::SetEnd(Window& window, std::optional<Milliseconds> end) {
    if (end == window.end) {
        return;
    }
    if (window.end) {
        byEnd.erase({*window.end, window.serial});
    }
    if (end) {
        byEnd.emplace(std::pair(*end, window.serial), &window);
    }
    window.end = end;
}

void Windows::MoveToEndOf(std::list<Window>& list, Window& window) {
    list.splice(list.end(), window.isDormant ? dormant : open, window.place);
    window.isDormant = &list == &dormant;
}

void Windows::MakeRoom(const Window& kept) {
    while (open.size() + dormant.size() > mostWindows || bytes > mostBytes) {
        Window* const oldest = Oldest(kept);
        if (oldest == nullptr) {
            return;
        }
        ++givenWay;
        Remove(*oldest);
    }
}

Window* Windows::Oldest(const Window& kept) {
    for (std::list<Window>* const list : {&dormant, &open}) {
        for (Window& window : *list) {
            if (&window != &kept) {
                return &window;
            }
        }
    }
    return nullptr;
}

void Windows::Remove(Window& window) {
    SetEnd(window, std::nullopt);
    bytes -= window.size;
    byName.erase(Name(window.rule, window.key));
    (window.isDormant ? dormant : open).erase(window.place);
}

}  // namespace kelto::companion::rules
