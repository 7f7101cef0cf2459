#pragma once

#include "companions/ctl/Model.h"
#include "companions/ctl/StorePositions.h"

#include <optional>
#include <string>

namespace kelto::halvek::ctl {

/** Where in the settings a verdict comes from, and what there is to say of it. */
class VerdictReason {
public:
    /** Looks at both, which must outlive it. */
    VerdictReason(const ModelAnswers& modelAnswers, const StorePositions& storePositions)
        : model(modelAnswers), positions(storePositions) {}

    /** The line of the key or group that decides; of a handler that acts the handler's own. */
    std::optional<Position> Place(const ModelVerdict& verdict) const;

    /** Half a sentence, escaped. @param time of the event */
    std::string Text(const ModelVerdict& verdict, int64_t time) const;

private:
    std::optional<Position> PlaceOfGroup(const ModelHandler& handler) const;
    std::optional<Position> PlaceOfKey(const ModelHandler& handler, const std::string& key) const;
    std::optional<Position> PlaceOfSource(const ModelHandler& handler, bool onlyMissing) const;
    std::optional<Position> PlaceOfFault(const ModelHandler& handler) const;
    const ModelRecord* FindRecord(const std::string& group) const;

    const ModelAnswers& model;
    const StorePositions& positions;
};

}  // namespace kelto::halvek::ctl
