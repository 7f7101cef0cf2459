#pragma once

#include "companions/ctl/model/HandlerProbes.h"
#include "companions/ctl/model/Ledger.h"
#include "companions/ctl/model/SourceProbes.h"
#include "kelto/core/IniFile.h"
#include "monitor/EventMonitor.h"

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * The daemon's objects, made and wired from the settings that the environment names, and never started. For a process
 * of its own whose standard error is a file, see ChildProcess, and where the environment says nothing of the log.
 */
class LoadedModel {
public:
    /** Loads as the daemon does at its start. Throws kelto::osa::Exception if the daemon would refuse the settings. */
    LoadedModel();

    ModelAnswers Answer(const ModelQuestions& questions);

private:
    void Fetch();
    void MarkHandlers();
    void Load();
    void NoteRecords(off_t begin, const char* group);
    void Describe();
    std::vector<std::string> HandlerGroups() const;
    std::vector<ModelSource> DescribeAbsentSources() const;
    ModelHandler DescribeHandler(const std::string& group, const ProbedHandler* probe) const;
    std::vector<ModelEdge> DescribeEdges() const;
    std::vector<std::string> PostedIds(const std::string& handler, const std::string& eventId) const;

    EventAnswer Answer(const EventQuestion& question);
    void Deliver(ProbedSource& source, const EventQuestion& question, EventAnswer& answer);
    ModelVerdict UnreachedVerdict(const ModelHandler& handler, const EventQuestion& question) const;
    std::vector<const ProbedHandler*> DeliveryOrder(const ProbedSource& source, const std::string& eventId) const;

    Ledger ledger;
    core::IniFile ini;
    SourceProbes sourceProbes;
    HandlerRegistry registry;
    EventMonitor monitor;
    ModelAnswers answers;
};

}  // namespace kelto::halvek::ctl
