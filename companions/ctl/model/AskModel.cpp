#include "companions/ctl/Model.h"
#include "companions/ctl/model/ChildProcess.h"
#include "companions/ctl/model/LoadedModel.h"
#include "companions/ctl/model/Wire.h"

#include <cstdlib>

namespace kelto::halvek::ctl {

template <typename Wire>
void Travel(Wire& wire, ModelRecord& record) {
    wire(record.level);
    wire(record.logger);
    wire(record.text);
    wire(record.group);
}

template <typename Wire>
void Travel(Wire& wire, ModelSource& source) {
    wire(source.group);
    wire(source.type);
    wire(source.settings);
    wire(source.isPosted);
    wire(source.asksBus);
}

template <typename Wire>
void Travel(Wire& wire, ModelHandler& handler) {
    wire(handler.group);
    wire(handler.type);
    wire(handler.settings);
    wire(handler.sourceIds);
    wire(handler.isLoaded);
    wire(handler.isConfigured);
    wire(handler.asksBus);
}

template <typename Wire>
void Travel(Wire& wire, ModelEdge& edge) {
    wire(edge.source);
    wire(edge.handler);
    wire(edge.eventId);
    wire(edge.postedIds);
    wire(edge.order);
}

template <typename Wire>
void Travel(Wire& wire, ModelVerdict& verdict) {
    wire(verdict.handler);
    wire(verdict.verdict);
    wire(verdict.source);
    wire(verdict.because);
    wire(verdict.times);
}

template <typename Wire>
void Travel(Wire& wire, EventAnswer& answer) {
    wire(answer.handlers);
    wire(answer.alwaysOn);
}

template <typename Wire>
void Travel(Wire& wire, OpenSpan& span) {
    wire(span.from);
    wire(span.to);
}

template <typename Wire>
void Travel(Wire& wire, HandlerSchedule& schedule) {
    wire(schedule.handler);
    wire(schedule.open);
    wire(schedule.next);
    wire(schedule.hasUnreadableRange);
}

template <typename Wire>
void Travel(Wire& wire, ModelAnswers& answers) {
    wire(answers.sources);
    wire(answers.absentSources);
    wire(answers.handlers);
    wire(answers.edges);
    wire(answers.records);
    wire(answers.events);
    wire(answers.schedules);
}

namespace {

/** The model's log goes to standard error, at levels of its own. Before the first logger is made. */
void FreeLogFromEnvironment() {
    unsetenv("KELTO_LOG");
    unsetenv("JOURNAL_STREAM");
}

}  // namespace

ModelAnswers AskModel(const ModelQuestions& questions) {
    const std::string bytes = ChildProcess::Run([&] {
        FreeLogFromEnvironment();
        WireWriter writer;
        // Never destroyed: a source that was never started need not be stopped, and the process ends.
        ModelAnswers answers = (new LoadedModel)->Answer(questions);
        writer(answers);
        return writer.Take();
    });
    ModelAnswers answers;
    WireReader reader(bytes);
    reader(answers);
    return answers;
}

}  // namespace kelto::halvek::ctl
