#pragma once

#include "env/SettingsKeys.h"
#include "handler/EventHandler.h"
#include "handler/SnapshotPath.h"

#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek::handler {

/**
 * Uploads the camera's latest snapshot to an FTP server at every event, whatever the event holds, by the system's
 * command ftpput.
 *
 * Its fields are written by Configure only, so that it may act on several threads at once without a lock.
 */
class FtpEventHandler : public EventHandler {
public:
    static constexpr SettingsKeys keys{TextKey{.name = "DestName"}, TextKey{.name = "Server"},
                                       TextKey{.name = "BasePath"}, TextKey{.name = "Username"},
                                       TextKey{.name = "Password"}, BooleanKey{.name = "Attachment"}};

    /** @param lookUp gives the snapshot's path at every configuration; may throw */
    explicit FtpEventHandler(SnapshotLookUp lookUp = LookUpSnapshotPath);

    /**
     * Reads "Server", "Username", "Password", "BasePath", "DestName", the conversions of strftime in it, and
     * "Attachment", which must be there and true. Looks up the snapshot in the settings as they are now.
     *
     * The remote folder is resolved on the camera's own file system: one that does not exist here too becomes "/".
     *
     * @throws kelto::osa::Exception if "Attachment" is absent, unreadable or false
     */
    void Configure(const core::IniFile::Group& group) override;
    /** Always true. */
    bool IsConfigured() const override;
    ~FtpEventHandler() override = default;

    /** Throws nothing. Blocks until the command has ended, however long that takes; how it ended is not looked at. */
    void PerformAction(Event& event) override;

private:
    void FindSourcePath();
    void LookUpSourcePath();
    void ResolveBasePath();
    void Upload() const;
    std::string RemoteFullPath(const std::string& remoteFile) const;
    void LogTransaction(const std::string& remoteFile, const std::string& remoteFullPath) const;
    void RunCommand(const std::string& remoteFullPath) const;

    core::Logger& logger;
    const SnapshotLookUp lookUpSnapshot;

    // Constant after Configure.
    std::string username;
    std::string password;
    std::string destName;
    std::string sourcePath;
    std::string basePath;
    std::string server;
};

}  // namespace kelto::halvek::handler
