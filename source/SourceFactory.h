#pragma once

#include "env/SettingsKeys.h"

#include <memory>
#include <span>
#include <string>

namespace kelto::halvek {

class EventSource;
class HalvekEnv;

/** A type of source. One constant row per type. */
struct SourceType {
    /** The value of a source group's "Type", compared to the letter. */
    const char* name;

    /** Makes a source; null for a type that is known but has none of its own. */
    std::unique_ptr<EventSource> (*create)(const std::string& typeName, HalvekEnv* env);

    /** What the source is configured from. */
    SettingsKeyList keys;
};

/** All types. Constant, of static life. */
std::span<const SourceType> SourceTypes();

/**
 * Makes a source from its type name in the settings, compared to the letter.
 *
 * @param env handed to the source, must outlive it; null for the event server
 * @return null for a type without a source of its own: silently for "System", which is known but retired, with a
 * Warning for a type that nobody knows
 */
std::unique_ptr<EventSource> CreateEventSource(const std::string& typeName, HalvekEnv* env);

}  // namespace kelto::halvek
