#include "companions/ctl/model/Ledger.h"

#include "companions/ctl/model/RecordFile.h"

#include <utility>

namespace kelto::halvek::ctl {

ProbedSource::ProbedSource(Ledger& probeLedger, ModelSource sourceFacts)
    : facts(std::move(sourceFacts)), ledger(probeLedger) {
    ledger.sources.push_back(this);
}

ProbedSource::~ProbedSource() {
    std::erase(ledger.sources, this);
}

void Ledger::NoteEdge(const ProbedSource& source, EventHandler* handler, const std::string& edgeEventId) {
    if (const auto* const probe = dynamic_cast<const ProbedHandler*>(handler)) {
        edges.push_back({&source, probe, edgeEventId});
    }
}

void Ledger::NoteReached(const Event& event) {
    const auto id = event.GetProperties().find("eventId");
    eventId = id == event.GetProperties().end() ? std::string() : id->second;
    isReached = true;
    recordsEnd = RecordFile::End();
}

void Ledger::NoteAction(const ProbedHandler& handler) {
    // All that a handler's filter ever says at the level of the model is that it cannot read a range.
    const off_t end = RecordFile::End();
    actions.push_back({&handler, end != recordsEnd});
    recordsEnd = end;
}

void Ledger::ForgetDelivery() {
    isReached = false;
    eventId.clear();
    actions.clear();
}

}  // namespace kelto::halvek::ctl
