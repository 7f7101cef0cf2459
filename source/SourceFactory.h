#pragma once

#include <memory>
#include <string>

namespace kelto::halvek {

class EventSource;
class HalvekEnv;

/**
 * Makes a source from its type name in the settings, compared to the letter.
 *
 * @param env handed to the source, must outlive it; null for the event server
 * @return null for a type without a source of its own: silently for "System", which is known but retired, with a
 * Warning for a type that nobody knows
 */
std::unique_ptr<EventSource> CreateEventSource(const std::string& typeName, HalvekEnv* env);

}  // namespace kelto::halvek
