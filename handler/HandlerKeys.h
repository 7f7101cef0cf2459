#pragma once

#include "env/SettingsKeys.h"

#include <span>

namespace kelto::halvek {

/** What the handlers of a type are configured from, beside what every handler is. */
struct HandlerKeys {
    /** The name of the type's HandlerRegistration. */
    const char* type;
    SettingsKeyList keys;
};

/** One row per handler type. Constant, of static life. */
std::span<const HandlerKeys> KeysOfHandlers();

/** What every handler is configured from. */
SettingsKeyList KeysOfEveryHandler();

}  // namespace kelto::halvek
