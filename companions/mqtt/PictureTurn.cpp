#include "companions/mqtt/PictureTurn.h"

#include "companions/mqtt/Uptime.h"

#include <string>
#include <utility>

namespace kelto::halvek::mqtt {

PictureTurn::PictureTurn(const Settings& wanted, const CameraFacts& known, const Topics& names, Pictures& latest)
    : settings(wanted), facts(known), topics(names), pictures(latest) {}

std::optional<Message> PictureTurn::Next() {
    const std::optional<Milliseconds> due = NextAt();
    if (!due || Uptime() < *due) {
        return std::nullopt;
    }
    isWanted = false;
    if (sentAt) {
        pictures.NoteSurvived();
    }
    std::optional<std::string> picture = pictures.Take(facts.picture, Uptime());
    if (!picture) {
        return std::nullopt;
    }
    sentAt = Uptime();
    return Message{topics.Snapshot(), std::move(*picture), 0, false, Content::Jpeg, std::nullopt};
}

std::optional<PictureTurn::Milliseconds> PictureTurn::NextAt() const {
    if (!isWanted || !settings.publishesPictures) {
        return std::nullopt;
    }
    return pictures.NextAt();
}

}  // namespace kelto::halvek::mqtt
