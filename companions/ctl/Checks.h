#pragma once

#include <string>

namespace kelto::halvek::ctl {

class Examination;

// What check finds, one step for each kind. Each looks at a store and adds its findings to the examination. Only the
// first three can say something of a store that is malformed.

/** Lines that the store refuses, bytes that look otherwise than they are, files that are ignored. */
void CheckText(Examination& examination);

/** Groups and keys that nobody reads, that come twice or that a later file overrides. */
void CheckNames(Examination& examination);

/** Values of text that hold more than they should: quotes, comments, secrets, words of a shell. */
void CheckSecurity(Examination& examination);

/** The event server, and each source by itself. */
void CheckSources(Examination& examination);

/** Each handler by itself. */
void CheckHandlers(Examination& examination);

/** Which handler listens to what. */
void CheckWiring(Examination& examination);

/** @param zone by which the clock is put forward; empty if that is not to be looked at */
void CheckSchedules(Examination& examination, const std::string& zone);

/**
 * Holds what was foretold against what the daemon's own code has reported, record by record: what it did not report is
 * not foretold, and what nobody foretold is a finding.
 */
void CheckRecords(Examination& examination);

}  // namespace kelto::halvek::ctl
