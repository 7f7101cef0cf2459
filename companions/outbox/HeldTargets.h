#pragma once

#include <set>
#include <string>
#include <vector>

namespace kelto::halvek::outbox {

/**
 * What a person has put on hold: all, or single targets. It stays so over restarts and reboots, until it is released.
 * One thread at a time.
 */
class HeldTargets {
public:
    /** @param files where it is written down, the best place first; it counts wherever it is found */
    explicit HeldTargets(std::vector<std::string> files);

    /** Reads what was written down. */
    void Load();

    bool IsAllHeld() const { return isAllHeld; }
    /** By itself; see IsAllHeld too. */
    bool IsHeld(const std::string& target) const { return targets.contains(target); }
    const std::set<std::string>& Targets() const { return targets; }

    void HoldAll();
    void Hold(const std::string& target);
    /** Releases single targets too. */
    void ReleaseAll();
    void Release(const std::string& target);

private:
    void Save() const;

    const std::vector<std::string> files;
    bool isAllHeld = false;
    std::set<std::string> targets;
};

}  // namespace kelto::halvek::outbox
