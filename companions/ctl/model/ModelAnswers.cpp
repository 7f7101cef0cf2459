#include "companions/ctl/Model.h"

#include <algorithm>

namespace kelto::halvek::ctl {

namespace {

template <typename Item>
const Item* FindGroup(const std::vector<Item>& items, const std::string& group) {
    const auto found = std::find_if(items.begin(), items.end(), [&](const Item& item) { return item.group == group; });
    return found == items.end() ? nullptr : &*found;
}

}  // namespace

const char* VerdictName(Verdict verdict) {
    switch (verdict) {
        case Verdict::Acts:
            return "acts";
        case Verdict::NotWired:
            return "not-wired";
        case Verdict::OutOfDay:
            return "out-of-day";
        case Verdict::OutOfTime:
            return "out-of-time";
        case Verdict::UnreadableRange:
            return "unreadable-range";
        case Verdict::NotConfigured:
            return "not-configured";
        case Verdict::BehindFailing:
            return "behind-failing";
        case Verdict::LeftOut:
            return "left-out";
        case Verdict::OtherType:
            return "other-type";
        case Verdict::NoEventPipe:
            return "no-event-pipe";
    }
    return "";
}

const ModelSource* ModelAnswers::FindSource(const std::string& group) const {
    return FindGroup(sources, group);
}

const ModelHandler* ModelAnswers::FindHandler(const std::string& group) const {
    return FindGroup(handlers, group);
}

}  // namespace kelto::halvek::ctl
