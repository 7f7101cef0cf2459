#pragma once

#include "companions/common/Json.h"
#include "companions/ctl/WeekStrip.h"
#include "companions/ctl/Wiring.h"

#include <string>

namespace kelto::halvek::ctl {

/** A wiring in letters. */
class WiringTexts {
public:
    /** For people: each source with its handlers in the order of delivery, then each handler with its week. */
    static std::string Plain(const Wiring& wiring, const WeekStrip& week);

    /** For dot(1). */
    static std::string Dot(const Wiring& wiring);

    /** The fields of an open JSON object. */
    static void AddJson(const Wiring& wiring, const WeekStrip& week, companion::Json& json);
};

}  // namespace kelto::halvek::ctl
