#pragma once

#include "companions/common/EventPipe.h"
#include "companions/mqtt/Settings.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::halvek::mqtt {

/**
 * Decides what may be posted over the broker, and posts it.
 *
 * The daemon remembers every type and region for as long as it runs: an open list would be a leak that anybody on the
 * broker could use. So both lists are exact. What a broker has kept is never posted, or a door would open whenever the
 * connection comes back; and what has been through a broker already is not posted again, or two cameras would go on for
 * ever. One thread. Times are those of a clock that never steps.
 */
class PostGate {
public:
    using Milliseconds = std::chrono::milliseconds;

    /** In bytes of JSON. */
    static constexpr size_t largestPost = 3072;
    /** So many in a row, and one more each time this has passed. */
    static constexpr int burst = 10;
    static constexpr Milliseconds pace{200};
    /** Ids that are remembered. */
    static constexpr size_t mostIds = 64;

    explicit PostGate(std::string eventPipe) : pipe(std::move(eventPipe)) {}

    /** Goes on with other lists. What was posted is still remembered. */
    void SetLists(const std::vector<std::string>& types, const std::vector<std::string>& regions);

    /**
     * Posts a message, or does not.
     *
     * @param level what stands behind "post/" in its topic
     * @return posted, retained, type, rate, grammar, size or no-pipe
     */
    const char* Take(std::string_view level, std::string_view payload, bool isRetained, Milliseconds now);

private:
    using Properties = std::vector<std::pair<std::string, std::string>>;

    static std::optional<Properties> Read(std::string_view payload);
    bool IsAllowed(const Properties& properties) const;
    bool TakeToken(Milliseconds now);
    const char* Post(const std::string& type, const Properties& properties);

    companion::EventPipe pipe;
    /** By the level that each type has in a topic. */
    std::map<std::string, std::string, std::less<>> types;
    std::vector<std::string> regions;
    std::deque<std::string> postedIds;
    int tokens = burst;
    Milliseconds tokensAt{};
};

}  // namespace kelto::halvek::mqtt
