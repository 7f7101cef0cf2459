#include "companions/rules/Engine.h"

#include "companions/common/PostRefusal.h"
#include "companions/rules/Chain.h"

#include <algorithm>
#include <utility>

namespace kelto::companion::rules {

namespace {

/** The values of the properties that keep windows apart, so that no two lists of values are the same text. */
std::string KeyOf(const Rule& rule, const ReceivedEvent& event) {
    std::string key;
    for (const std::string& name : rule.same) {
        const std::string* const value = event.Find(name);
        key.append(value == nullptr ? "-" : std::to_string(value->size()) + ":" + *value);
    }
    return key;
}

Remembered Remember(const Rule& rule, const ReceivedEvent& event) {
    Remembered remembered;
    for (const std::string& name : rule.taken) {
        if (const std::string* const value = event.Find(name)) {
            remembered.properties.emplace_back(name, *value);
        }
    }
    remembered.chain = Chain::Of(event);
    return remembered;
}

}  // namespace

const std::string* Engine::Cause::Find(const std::string& key) const {
    const std::string* value = event == nullptr ? nullptr : event->Find(key);
    if (value == nullptr && earlier != nullptr) {
        const auto found =
            std::ranges::find(earlier->properties, key, [](const auto& property) { return property.first; });
        value = found == earlier->properties.end() ? nullptr : &found->second;
    }
    return value;
}

std::string Engine::Cause::Chain() const {
    const std::string chain = earlier == nullptr ? std::string() : earlier->chain;
    return event == nullptr ? chain : rules::Chain::Joined(chain, rules::Chain::Of(*event));
}

void Engine::SetRules(std::vector<Rule> newRules) {
    const std::vector<std::shared_ptr<const Rule>> before = std::exchange(rules, {});
    for (Rule& rule : newRules) {
        const auto same = std::ranges::find_if(before, [&](const auto& old) { return *old == rule; });
        rules.push_back(same == before.end() ? std::make_shared<const Rule>(std::move(rule)) : *same);
    }
    windows.RemoveIf([&](const Rule& rule) {
        return std::ranges::none_of(rules, [&](const auto& kept) { return kept.get() == &rule; });
    });
    byType.clear();
    for (const auto& rule : rules) {
        byType[rule->when.type].push_back(rule.get());
        if (!rule->second.type.empty() && rule->second.type != rule->when.type) {
            byType[rule->second.type].push_back(rule.get());
        }
    }
}

void Engine::Take(const ReceivedEvent& event, Milliseconds now) {
    ++counts.events;
    const auto concerned = byType.find(event.type);
    if (concerned == byType.end()) {
        return;
    }
    const std::string chain = Chain::Of(event);
    for (const Rule* const rule : concerned->second) {
        TakeFor(*rule, event, Chain::Holds(chain, rule->name), now);
    }
}

void Engine::Expire(Milliseconds now) {
    while (Window* const window = windows.NextOver(now)) {
        const Rule& rule = *window->rule;
        if (rule.kind != Rule::Kind::Unless || !window->openedAt || *window->openedAt + rule.span > now) {
            windows.Settle(*window, now);
            continue;
        }
        window->openedAt.reset();
        const Remembered first = std::exchange(window->first, {});
        const std::string key = window->key;
        windows.Settle(*window, now);
        Fire(rule, key, {nullptr, &first}, now);
    }
}

void Engine::TakeFor(const Rule& rule, const ReceivedEvent& event, bool isBehind, Milliseconds now) {
    switch (rule.kind) {
        case Rule::Kind::Each:
            if (!isBehind && rule.when.Matches(event)) {
                Fire(rule, KeyOf(rule, event), {&event, nullptr}, now);
            }
            return;
        case Rule::Kind::Count:
            if (!isBehind && rule.when.Matches(event)) {
                TakeCount(rule, event, now);
            }
            return;
        case Rule::Kind::Then:
            TakeThen(rule, event, isBehind, now);
            return;
        case Rule::Kind::Unless:
            TakeUnless(rule, event, isBehind, now);
            return;
    }
}

void Engine::TakeCount(const Rule& rule, const ReceivedEvent& event, Milliseconds now) {
    const std::string key = KeyOf(rule, event);
    Window& window = windows.FindOrMake(rule, key);
    window.times.push_back(now);
    while (now - window.times.front() > rule.span) {
        window.times.pop_front();
    }
    const bool isReached = window.times.size() >= rule.count;
    if (isReached) {
        window.times.clear();
    }
    windows.Settle(window, now);
    if (isReached) {
        Fire(rule, key, {&event, nullptr}, now);
    }
}

void Engine::TakeThen(const Rule& rule, const ReceivedEvent& event, bool isBehind, Milliseconds now) {
    const bool isFirst = rule.when.Matches(event);
    const bool isSecond = rule.second.Matches(event);
    if (isBehind || (!isFirst && !isSecond)) {
        return;
    }
    const std::string key = KeyOf(rule, event);
    Window* const window = isSecond ? windows.Find(rule, key) : nullptr;
    if (window != nullptr && window->openedAt && now - *window->openedAt <= rule.span) {
        window->openedAt.reset();
        const Remembered first = std::exchange(window->first, {});
        windows.Settle(*window, now);
        Fire(rule, key, {&event, &first}, now);
    } else if (isFirst) {
        Open(rule, event, key, now);
    }
}

void Engine::TakeUnless(const Rule& rule, const ReceivedEvent& event, bool isBehind, Milliseconds now) {
    const bool isFirst = !isBehind && rule.when.Matches(event);
    const bool isSecond = rule.second.Matches(event);
    if (!isFirst && !isSecond) {
        return;
    }
    const std::string key = KeyOf(rule, event);
    Window* const window = windows.Find(rule, key);
    const bool isOpen = window != nullptr && window->openedAt;
    if (isFirst && (isSecond || !isOpen)) {
        // One that is both ends the waiting and begins it anew: so a rule notices that a sign of life fails to come.
        Open(rule, event, key, now);
    } else if (isSecond && isOpen) {
        window->openedAt.reset();
        windows.Settle(*window, now);
    }
}

void Engine::Open(const Rule& rule, const ReceivedEvent& event, const std::string& key, Milliseconds now) {
    Window& window = windows.FindOrMake(rule, key);
    windows.MakeYoungest(window);
    window.openedAt = now;
    window.first = Remember(rule, event);
    windows.Settle(window, now);
}

void Engine::Fire(const Rule& rule, const std::string& key, const Cause& cause, Milliseconds now) {
    Window* const held = windows.Find(rule, key);
    if (held != nullptr && held->heldUntil && now < *held->heldUntil) {
        ++held->suppressed;
        ++counts.suppressed;
        return;
    }
    const bool isPosted = Post(rule, cause, held == nullptr ? 0 : held->suppressed);
    if (isPosted && rule.holdOff > Milliseconds(0)) {
        Window& window = windows.FindOrMake(rule, key);
        windows.MakeYoungest(window);
        window.suppressed = 0;
        window.heldUntil = now + rule.holdOff;
        windows.Settle(window, now);
    }
}

bool Engine::Post(const Rule& rule, const Cause& cause, uint64_t suppressed) {
    try {
        const PostedEvent event = MakeEvent(rule, cause, suppressed);
        const bool isPosted = outlet.Post(rule, event, event.Block());
        ++(isPosted ? counts.posts : counts.dropped);
        return isPosted;
    } catch (const PostRefusal& refusal) {
        ++counts.refused;
        outlet.Refuse(rule, refusal.what());
        return false;
    }
}

PostedEvent Engine::MakeEvent(const Rule& rule, const Cause& cause, uint64_t suppressed) {
    PostedEvent event(rule.post);
    for (const auto& [key, value] : rule.set) {
        event.Set(key, value.Fill([&](const std::string& name) { return cause.Find(name); }));
    }
    event.Set("rule", rule.name);
    event.Set(Chain::key, Chain::Joined(cause.Chain(), rule.name));
    if (suppressed > 0) {
        event.Set("suppressed", std::to_string(suppressed));
    }
    return event;
}

}  // namespace kelto::companion::rules
