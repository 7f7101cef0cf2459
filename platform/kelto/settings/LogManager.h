#pragma once

#include "kelto/core/IniFile.h"

#include <string>

namespace kelto::settings {

class KeltoSettingsClient;

/**
 * Keeps the log levels as a settings group has them: "LogLevel" for all loggers, "LogLevel.<logger>" for one of them,
 * Information where nothing is said.
 *
 * They are applied at construction and whenever the client fetches that group afterwards. A store that cannot be read
 * at construction leaves the levels as they are. Use it on the client's thread, and destroy it before the client.
 */
class LogManager {
public:
    /** @param client not owned, must outlive this object */
    LogManager(KeltoSettingsClient* client, const std::string& group);
    ~LogManager();
    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

private:
    static void Apply(const core::IniFile::Group& settings);

    KeltoSettingsClient* const client;
};

}  // namespace kelto::settings
