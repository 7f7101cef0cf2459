#pragma once

#include "kelto/core/IniFile.h"

#include <functional>
#include <set>
#include <string>

namespace kelto::settings {

/** What a settings client is for. Both modes read the same store. */
enum class OperationMode : int {
    Daemon = 0,
    LookUp = 1,
};

/** Fetches settings groups from the camera's store. One thread at a time. */
class KeltoSettingsClient {
public:
    using Patterns = std::set<std::string>;
    using FetchListener = std::function<void(const Patterns&, const core::IniFile&)>;

    explicit KeltoSettingsClient(OperationMode operationMode) : mode(operationMode) {}
    KeltoSettingsClient(const KeltoSettingsClient&) = delete;
    KeltoSettingsClient& operator=(const KeltoSettingsClient&) = delete;

    /**
     * Reads the store afresh and adds every group that matches one of the patterns to the container.
     *
     * @param patterns shell patterns as fnmatch takes them without flags: "*" matches "/" too
     * @throws kelto::osa::Exception if the store cannot be read; the container is untouched then
     */
    void GetSettings(const Patterns& patterns, core::IniFile& ini);

    /** Has the listener called after each successful fetch, on the fetching thread, until an empty one is set. */
    void SetFetchListener(FetchListener newListener) { listener = std::move(newListener); }

    OperationMode GetOperationMode() const { return mode; }

    /** Whether one of the patterns matches the group name. */
    static bool Matches(const Patterns& patterns, const std::string& group);

private:
    const OperationMode mode;
    FetchListener listener;
};

}  // namespace kelto::settings
