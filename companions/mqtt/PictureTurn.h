#pragma once

#include "companions/mqtt/CameraFacts.h"
#include "companions/mqtt/Message.h"
#include "companions/mqtt/Pictures.h"
#include "companions/mqtt/Settings.h"
#include "companions/mqtt/Topics.h"

#include <chrono>
#include <optional>

namespace kelto::halvek::mqtt {

/** Says when a picture goes over one connection: behind an event, if pictures are wanted and not too often. One thread.
 */
class PictureTurn {
public:
    using Milliseconds = std::chrono::milliseconds;

    /** All of these must live as long as this does. */
    PictureTurn(const Settings& settings, const CameraFacts& facts, const Topics& topics, Pictures& pictures);

    /** An event has been published, of which a picture may show something. */
    void Want() { isWanted = true; }

    /** The picture that is to be sent now; nothing if none is. */
    std::optional<Message> Next();

    /** When to ask for the next one; nothing while none is wanted. */
    std::optional<Milliseconds> NextAt() const;
    /** When the last one was sent. */
    std::optional<Milliseconds> SentAt() const { return sentAt; }

private:
    // Constant after construction.
    const Settings& settings;
    const CameraFacts& facts;
    const Topics& topics;

    Pictures& pictures;
    bool isWanted = false;
    std::optional<Milliseconds> sentAt;
};

}  // namespace kelto::halvek::mqtt
