#pragma once

#include "companions/common/Json.h"
#include "companions/outbox/Deliveries.h"
#include "companions/outbox/FieldText.h"
#include "companions/outbox/HeldTargets.h"
#include "companions/outbox/Queue.h"
#include "companions/outbox/Settings.h"

#include <string>

namespace kelto::halvek::outbox {

/** What the service says to the verbs of its program. The service's thread. */
class Answers {
public:
    Answers(const Settings& current, Queue& items, Deliveries& targets, HeldTargets& onHold)
        : settings(current), queue(items), deliveries(targets), held(onHold) {}

    /** A line "status N" with the status to end with, and what to print. */
    std::string Make(const FieldText::Fields& request);

private:
    struct Reply {
        int status;
        std::string text;
    };

    Reply Run(const std::string& verb, const std::string& argument);
    Reply Show(const std::string& argument);
    Reply Flush(const std::string& argument);
    Reply Drop(const std::string& argument);
    Reply SetHeld(const std::string& argument, bool isHeld);
    Reply Done(const std::string& text) const;
    Reply Refuse(const std::string& text) const;

    std::string ListText() const;
    std::string StatusText() const;
    void AddItem(companion::Json& json, const Item& item) const;
    void AddAll(companion::Json& json) const;
    std::string ItemState(const Item& item) const;
    std::string TargetWord(const std::string& name, const TargetEntry& target) const;
    Item* FindItem(const std::string& argument);

    const Settings& settings;
    Queue& queue;
    Deliveries& deliveries;
    HeldTargets& held;
    std::string verb;
    bool isJson = false;
};

}  // namespace kelto::halvek::outbox
