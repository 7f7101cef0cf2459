#pragma once

#include "companions/ctl/Examination.h"
#include "env/SettingsKeys.h"

#include <functional>
#include <string>

namespace kelto::halvek::ctl {

/** Looks at the numbers and booleans of one source or handler as the daemon's SettingsReader takes them. */
class KeyCheck {
public:
    /** What becomes of a value that is no number, or no boolean, where that costs the whole item. */
    struct Costs {
        const char* id;
        /** What the record begins with, before the reader's own words. */
        const char* record;
    };

    /** Called with a number that the table calls out of range. */
    using OutOfRange = std::function<void(const std::string& group, const IntegerKey& key, int32_t number)>;

    KeyCheck(Examination& examined, Costs itemCosts, OutOfRange outOfRange)
        : examination(examined), costs(itemCosts), reportOutOfRange(std::move(outOfRange)) {}

    /** @param group in which the key stands; nothing is said of a key that does not */
    void Check(const std::string& group, const SettingsKey& key);

private:
    void CheckInteger(const std::string& group, const IntegerKey& key);
    void CheckBoolean(const std::string& group, const BooleanKey& key);

    Examination& examination;
    const Costs costs;
    const OutOfRange reportOutOfRange;
};

}  // namespace kelto::halvek::ctl
