#pragma once

#include "tests/support/TempDir.h"

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace kelto::test {

/**
 * A message bus of a test's own: a real dbus-daemon, found by all in this process as the system bus. For the test's
 * main thread, which the daemon does not outlive.
 */
class PrivateBus {
public:
    enum class State { Running, Absent };

    /** @param state Absent: the address is known, but nobody is there until Start */
    explicit PrivateBus(State state = State::Running);
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /** Starts the daemon, at the same address as ever. Returns when one can connect to it. */
    void Start();

    /** Kills the daemon at once, with all connections. */
    void Kill();

    /** Has the daemon do nothing until Thaw; whoever asks it waits. */
    void Freeze() const;
    void Thaw() const;

    /** The path of the socket. */
    std::string GetSocketPath() const { return folder.PathOf("bus"); }

    /** The unique names of all connections but the asking one. */
    std::vector<std::string> UniqueNames() const;

    /** The match rules of every connection that has any. */
    std::map<std::string, std::vector<std::string>> MatchRules() const;

    /** How many rules there are in all that contain a text. */
    size_t CountMatchRules(const std::string& part) const;

private:
    const TempDir folder;
    pid_t daemon = 0;
    std::string addressBefore;
    bool hadAddress;
};

}  // namespace kelto::test
