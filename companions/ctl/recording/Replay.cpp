#include "companions/ctl/recording/Replay.h"

#include "kelto/core/StringUtil.h"
#include "source/TimerEventSource.h"

#include <algorithm>
#include <array>
#include <tuple>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr int64_t minuteSec = 60;
constexpr int64_t msPerSec = 1000;
constexpr const IntegerKey& intervalKey = source::TimerEventSource::keys.Integer("Interval.sec");

/** All that who acts can hang on. Other properties are for what is done. */
constexpr std::array telling = {"region", "alarmBank", "alarmIndex", "alarmState"};

/** The filters tell minutes apart and nothing less, so that what is alike within one has one answer. */
class Questions {
public:
    void Add(size_t index, const RecordedInput& input) {
        const int64_t seconds = input.time / msPerSec;
        std::map<std::string, std::string> properties;
        for (const char* const key : telling) {
            if (const auto found = input.properties.find(key); found != input.properties.end()) {
                properties.insert(*found);
            }
        }
        const auto [known, isNew] =
            places.emplace(std::tuple(input.type, properties, seconds / minuteSec), asked.size());
        if (isNew) {
            asked.push_back({input.type, properties, seconds});
            inputs.emplace_back();
        }
        inputs[known->second].push_back(index);
    }

    const std::vector<EventQuestion>& Asked() const { return asked; }
    const std::vector<size_t>& InputsOf(size_t question) const { return inputs[question]; }

private:
    std::map<std::tuple<std::string, std::map<std::string, std::string>, int64_t>, size_t> places;
    std::vector<EventQuestion> asked;
    std::vector<std::vector<size_t>> inputs;
};

/** Whole minutes, since the filters are asked from the first second on. */
ScheduleQuestion ScheduleOf(const Recording::Stretch& stretch) {
    ScheduleQuestion question;
    question.from = stretch.from / msPerSec / minuteSec * minuteSec;
    question.to = (stretch.to / msPerSec / minuteSec + 1) * minuteSec;
    question.openingsFrom = question.to;
    return question;
}

int64_t IntervalMs(const ModelSource& timer) {
    int32_t interval = intervalKey.absent;
    const auto set = timer.settings.find(intervalKey.name);
    if (set != timer.settings.end() && !core::StringUtil::TryParse(set->second, interval)) {
        interval = intervalKey.absent;
    }
    return int64_t{interval} * msPerSec;
}

/** How many of the ticks that begin with a stretch fall into a time in which a handler is open. */
int64_t TicksIn(const OpenSpan& span, const Recording::Stretch& stretch, int64_t intervalMs) {
    const int64_t from = std::max(span.from * msPerSec, stretch.from) - stretch.from;
    const int64_t to = std::min(span.to * msPerSec - 1, stretch.to) - stretch.from;
    if (to < from) {
        return 0;
    }
    const int64_t before = (from + intervalMs - 1) / intervalMs;
    return std::max<int64_t>(0, to / intervalMs - before + 1);
}

void AddTicks(const ModelAnswers& model, const ModelSource& timer, const Recording& recording, Replay& replay) {
    const int64_t intervalMs = IntervalMs(timer);
    if (intervalMs <= 0) {
        return;
    }
    for (const ModelEdge& edge : model.edges) {
        const ModelHandler* const handler = edge.source == timer.group ? model.FindHandler(edge.handler) : nullptr;
        if (handler == nullptr) {
            continue;
        }
        if (!handler->isConfigured) {
            // It costs those behind it the event.
            return;
        }
        for (size_t i = 0; i < recording.stretches.size(); ++i) {
            for (const HandlerSchedule& schedule : model.schedules[i]) {
                for (const OpenSpan& span :
                     schedule.handler == edge.handler ? schedule.open : std::vector<OpenSpan>{}) {
                    replay.handlers[edge.handler].ticks[timer.group] +=
                        TicksIn(span, recording.stretches[i], intervalMs);
                }
            }
        }
    }
}

}  // namespace

int64_t Replay::Actions::Count() const {
    auto count = static_cast<int64_t>(inputs.size());
    for (const auto& [source, number] : ticks) {
        count += number;
    }
    return count;
}

Replay Replay::Of(const Recording& recording) {
    Questions questions;
    for (size_t i = 0; i < recording.inputs.size(); ++i) {
        questions.Add(i, recording.inputs[i]);
    }
    ModelQuestions asked{.events = questions.Asked(), .schedules = {}, .scheduleOf = {}};
    for (const Recording::Stretch& stretch : recording.stretches) {
        asked.schedules.push_back(ScheduleOf(stretch));
    }
    const ModelAnswers model = AskModel(asked);
    Replay replay;
    for (const ModelHandler& handler : model.handlers) {
        replay.handlers[handler.group];
    }
    for (size_t i = 0; i < model.events.size(); ++i) {
        for (const ModelVerdict& verdict : model.events[i].handlers) {
            if (Acts(verdict.verdict)) {
                const std::vector<size_t>& inputs = questions.InputsOf(i);
                replay.handlers[verdict.handler].inputs.insert(inputs.begin(), inputs.end());
            }
        }
    }
    for (const ModelSource& source : model.sources) {
        if (source.type == "Timer") {
            AddTicks(model, source, recording, replay);
        }
    }
    // A timer by which it never acted is as good as none.
    for (auto& [group, actions] : replay.handlers) {
        std::erase_if(actions.ticks, [](const auto& one) { return one.second == 0; });
    }
    return replay;
}

}  // namespace kelto::halvek::ctl
