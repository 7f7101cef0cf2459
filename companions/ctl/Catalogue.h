#pragma once

#include <span>
#include <string_view>

namespace kelto::halvek::ctl {

/** How grave a finding is, in ascending order. */
enum class Severity {
    /** Security, wear or taste. */
    Note,
    /** The daemon runs, but hardly as meant. */
    Warning,
    /** The daemon refuses the store, leaves an item out, never stops firing, or fails every event. */
    Error,
};

/** "error", "warning" or "note". */
const char* SeverityName(Severity severity);

/** What there can be to find: one constant row per id. An id is never used again for anything else. */
struct CatalogueEntry {
    /** "HK" and four digits, of which the first says what it is about. */
    const char* id;
    /** What it is as a rule; a finding may know better. */
    Severity severity;
    /** Half a line. */
    const char* title;
    /** One paragraph: what the daemon does, and what to do about it. */
    const char* explanation;
    /** The record of the daemon's that comes of it, with "%s" for what varies; null if there is none. */
    const char* record;
};

/**
 * All that check and its option --here find, in ascending order of the ids. The manual's page and "check --list" are
 * made from it. Any thread.
 */
class Catalogue {
public:
    static std::span<const CatalogueEntry> Entries();

    /** The row of an id; null if there is none. */
    static const CatalogueEntry* Find(std::string_view id);

    /** The row of an id that there is. */
    static const CatalogueEntry& Get(std::string_view id);

    /** "Store", "Sources" and so on: what the ids of a thousand are about. @param thousand from 1 */
    static const char* Subject(char thousand);
};

}  // namespace kelto::halvek::ctl
