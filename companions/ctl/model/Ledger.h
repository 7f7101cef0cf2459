#pragma once

#include "companions/ctl/Model.h"
#include "handler/EventHandler.h"
#include "kelto/core/IniFile.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

class Ledger;

/** What a handler of the model tells of itself. */
class ProbedHandler {
public:
    explicit ProbedHandler(Ledger& probeLedger) : ledger(probeLedger) {}
    virtual ~ProbedHandler() = default;
    ProbedHandler(const ProbedHandler&) = delete;
    ProbedHandler& operator=(const ProbedHandler&) = delete;

    virtual bool CallsItselfConfigured() const = 0;

    /** The group; of an always-on handler, which has none, its type. */
    std::string name;
    bool isAlwaysOn = true;
    core::IniFile::Group settings;
    bool asksBus = false;

protected:
    Ledger& ledger;
};

/** What a source of the model tells of itself, and how it is made to fire. */
class ProbedSource {
public:
    ProbedSource(Ledger& probeLedger, ModelSource sourceFacts);
    virtual ~ProbedSource();
    ProbedSource(const ProbedSource&) = delete;
    ProbedSource& operator=(const ProbedSource&) = delete;

    /** Fires the event if it is one of the source's. What the first handler that is not configured throws comes out. */
    virtual void Fire(const EventQuestion& question) = 0;

    ModelSource facts;

protected:
    Ledger& ledger;
};

/** What the probes of a model write down as the daemon's code makes, wires and calls them. */
class Ledger {
public:
    struct Edge {
        const ProbedSource* source;
        const ProbedHandler* handler;
        std::string eventId;
    };

    struct Action {
        const ProbedHandler* handler;
        bool hasUnreadableRange;
    };

    void NoteEdge(const ProbedSource& source, EventHandler* handler, const std::string& eventId);

    /** A delivery begins: the source's first handler has been called. */
    void NoteReached(const Event& event);
    void NoteAction(const ProbedHandler& handler);
    void ForgetDelivery();

    /** All that are configured, in the order of loading; they stay where they are. */
    std::vector<ProbedHandler*> handlers;
    /** All that there are. */
    std::vector<ProbedSource*> sources;
    std::vector<Edge> edges;

    /** Of the delivery: whether it has begun, what the event's "eventId" was, and who has acted. */
    bool isReached = false;
    std::string eventId;
    std::vector<Action> actions;

private:
    off_t recordsEnd = 0;
};

/** Stands first on each source's list, to tell that and what the source delivers. Like any other handler to the rest.
 */
class Witness : public EventHandler {
public:
    explicit Witness(Ledger& witnessLedger) : ledger(witnessLedger) {}

    bool IsConfigured() const override { return true; }
    void PerformAction(Event& event) override { ledger.NoteReached(event); }

private:
    Ledger& ledger;
};

}  // namespace kelto::halvek::ctl
