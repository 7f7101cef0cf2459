#pragma once

#include "env/SettingsKeys.h"
#include "event/IConfigurable.h"

#include <string>

namespace kelto::halvek {

/**
 * Lets events through at certain times of day and on certain days of the week, by local time.
 *
 * "EnabledTimes" holds ranges like 800-1200,1300-1730: hours times 100 plus minutes, the low bound within the range and
 * the high one not. A range does not wrap over midnight. "EnabledDays" holds the letters of days: U Sunday, M, T, W, R
 * Thursday, F, S. Without a key everything passes.
 *
 * Configured on the event monitor's thread before the first event, later only read, by any number of threads.
 */
class FilterChain : public virtual IConfigurable {
public:
    /** What stands in every handler's group. */
    static constexpr SettingsKeys keys{TextKey{.name = "EnabledTimes"}, TextKey{.name = "EnabledDays"}};

    FilterChain() = default;

    /** Throws nothing: an absent key switches its filter off. A key that is there but empty leaves the switch as it
     * was. */
    void Configure(const core::IniFile::Group& group) override;
    /** Always true. */
    bool IsConfigured() const override;
    ~FilterChain() override = default;

    /** Whether an event is to be dropped now. A range that cannot be read lets it pass, with a Warning. */
    bool IsFiltered() const;

private:
    bool IsDayFiltered() const;
    bool IsTimeFiltered() const;

    std::string enabledTimes;
    std::string enabledDays;
    bool timeFilterOn = false;
    bool dayFilterOn = false;
};

}  // namespace kelto::halvek
