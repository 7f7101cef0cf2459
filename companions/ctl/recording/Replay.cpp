#include "companions/ctl/recording/Replay.h"

#include "env/SettingsReader.h"
#include "source/ParkEventSource.h"
#include "source/TimerEventSource.h"

#include <algorithm>
#include <array>
#include <limits>
#include <tuple>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr int64_t minuteSec = 60;
constexpr int64_t msPerSec = 1000;

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
        const auto origin = input.kind == "posted" ? EventQuestion::Origin::Posted : EventQuestion::Origin::BuiltIn;
        const auto [known, isNew] =
            places.emplace(std::tuple(origin, input.type, properties, seconds / minuteSec), asked.size());
        if (isNew) {
            asked.push_back({.type = input.type, .properties = properties, .time = seconds, .origin = origin});
            inputs.emplace_back();
        }
        inputs[known->second].push_back(index);
    }

    const std::vector<EventQuestion>& Asked() const { return asked; }
    const std::vector<size_t>& InputsOf(size_t question) const { return inputs[question]; }

private:
    std::map<std::tuple<EventQuestion::Origin, std::string, std::map<std::string, std::string>, int64_t>, size_t>
        places;
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

/** As the timer makes of its setting: one below zero becomes very long, and so does what is too long to wait for. */
int64_t IntervalMs(const ModelSource& timer) {
    int32_t interval = 0;
    SettingsReader(timer.settings).TryRead(source::TimerEventSource::keys.Integer("Interval.sec"), interval);
    return std::min(int64_t{static_cast<uint32_t>(interval)} * msPerSec, int64_t{std::numeric_limits<int32_t>::max()});
}

int64_t DwellMs(const ModelSource& park) {
    int32_t dwell = 0;
    SettingsReader(park.settings).TryRead(source::ParkEventSource::keys.Integer("DwellTime.sec"), dwell);
    return int64_t{static_cast<uint32_t>(dwell)} * msPerSec;
}

/** When a source fires by itself. */
struct Firing {
    /** In which stretch of the recording. */
    size_t stretch;
    Replay::Ticks ticks;
};

std::vector<Firing> TimerFirings(const ModelSource& timer, const Recording& recording) {
    const int64_t interval = IntervalMs(timer);
    std::vector<Firing> firings;
    int64_t next = recording.stretches.front().begin;
    for (size_t i = 0; interval > 0 && i < recording.stretches.size(); ++i) {
        const Recording::Stretch& stretch = recording.stretches[i];
        // At the very end too; between two stretches a tick belongs to the second.
        const bool isLast = i + 1 == recording.stretches.size();
        const int64_t left = stretch.End() - next - (isLast ? 0 : 1);
        if (left >= 0) {
            const int64_t count = left / interval + 1;
            firings.push_back({i, {stretch.from + next - stretch.begin, interval, count}});
            next += count * interval;
        }
    }
    return firings;
}

/** @param endsWithFirst whether a handler throws, which is the end of the source */
std::vector<Firing> ParkFirings(const ModelSource& park, bool endsWithFirst, const Recording& recording) {
    const int64_t dwell = DwellMs(park);
    std::vector<Firing> firings;
    for (const Recording::Rest& rest : recording.rests) {
        const int64_t time = rest.from + dwell;
        for (size_t i = 0; i < recording.stretches.size() && (firings.empty() || !endsWithFirst); ++i) {
            const Recording::Stretch& stretch = recording.stretches[i];
            if (time < rest.to && stretch.begin <= time && time < stretch.End()) {
                firings.push_back({i, {stretch.from + time - stretch.begin, 0, 1}});
            }
        }
    }
    return firings;
}

/** Those that fall into a time in which a handler is open. */
void AddWithin(const OpenSpan& span, const Replay::Ticks& ticks, std::vector<Replay::Ticks>& within) {
    const int64_t step = std::max<int64_t>(1, ticks.interval);
    const int64_t before = std::max<int64_t>(0, (span.from * msPerSec - ticks.first + step - 1) / step);
    const int64_t last = span.to * msPerSec - 1 - ticks.first;
    const int64_t behind = last < 0 ? 0 : std::min(ticks.count, last / step + 1);
    if (behind > before) {
        const int64_t count = behind - before;
        within.push_back({ticks.first + before * ticks.interval, count == 1 ? 0 : ticks.interval, count});
    }
}

/** The handlers that a source delivers to, and whether one behind them fails. */
struct Reached {
    std::vector<std::string> handlers;
    bool fails = false;
};

Reached ReachedBy(const ModelSource& source, const ModelAnswers& model) {
    Reached reached;
    for (const ModelEdge& edge : model.edges) {
        const ModelHandler* const handler = edge.source == source.group ? model.FindHandler(edge.handler) : nullptr;
        if (handler != nullptr && !handler->isConfigured) {
            reached.fails = true;
            return reached;
        }
        if (handler != nullptr) {
            reached.handlers.push_back(edge.handler);
        }
    }
    return reached;
}

void AddFirings(const ModelAnswers& model, const ModelSource& source, const Recording& recording, Replay& replay) {
    const Reached reached = ReachedBy(source, model);
    const std::vector<Firing> firings = source.type == "Timer"  ? TimerFirings(source, recording)
                                        : source.type == "Park" ? ParkFirings(source, reached.fails, recording)
                                                                : std::vector<Firing>{};
    for (const Firing& firing : firings) {
        for (const std::string& group : reached.handlers) {
            for (const HandlerSchedule& schedule : model.schedules[firing.stretch]) {
                for (const OpenSpan& span : schedule.handler == group ? schedule.open : std::vector<OpenSpan>{}) {
                    AddWithin(span, firing.ticks, replay.handlers[group].ticks[source.group]);
                }
            }
        }
    }
}

/** Of all sources together. */
std::vector<Replay::Ticks> AllTicks(const Replay::Actions& actions) {
    std::vector<Replay::Ticks> all;
    for (const auto& [source, ticks] : actions.ticks) {
        all.insert(all.end(), ticks.begin(), ticks.end());
    }
    std::sort(all.begin(), all.end());
    return all;
}

}  // namespace

int64_t Replay::Actions::Count() const {
    int64_t count = 0;
    for (const auto& [input, times] : inputs) {
        count += times;
    }
    for (const auto& [source, ofSource] : ticks) {
        count += Count(source);
    }
    return count;
}

int64_t Replay::Actions::Count(const std::string& source) const {
    int64_t count = 0;
    const auto found = ticks.find(source);
    for (const Ticks& one : found == ticks.end() ? std::vector<Ticks>{} : found->second) {
        count += one.count;
    }
    return count;
}

bool Replay::Actions::operator==(const Actions& other) const {
    return inputs == other.inputs && AllTicks(*this) == AllTicks(other);
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
            for (const size_t input : Acts(verdict.verdict) ? questions.InputsOf(i) : std::vector<size_t>{}) {
                replay.handlers[verdict.handler].inputs[input] = verdict.times;
            }
        }
    }
    for (const ModelSource& source : model.sources) {
        AddFirings(model, source, recording, replay);
    }
    // A source by which it never acted is as good as none.
    for (auto& [group, actions] : replay.handlers) {
        std::erase_if(actions.ticks, [](const auto& one) { return one.second.empty(); });
    }
    return replay;
}

}  // namespace kelto::halvek::ctl
