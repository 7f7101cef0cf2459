#pragma once

#include "env/Guarded.h"
#include "env/SettingsKeys.h"
#include "handler/EventHandler.h"

#include <cstdint>
#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek::handler {

/**
 * Saves the camera's present snapshot into a folder at every event, whatever the event holds, and keeps the folder
 * below a size by deleting the files in it that are oldest. May act on several threads at once.
 */
class FolderEventHandler : public EventHandler {
public:
    static constexpr SettingsKeys keys{TextKey{.name = "DestinationPath"}, TextKey{.name = "DestName"},
                                       TextKey{.name = "LimitSize"}, BooleanKey{.name = "Attachment"}};

    FolderEventHandler();

    /**
     * Reads "DestinationPath", the folder, "DestName", the file's name with the conversions of strftime, "LimitSize",
     * bytes or a number with a unit letter, and "Attachment", which must be true. An absent one of the first three
     * leaves what was there; no limit is none. Looks up where the snapshot is.
     *
     * @throws kelto::osa::Exception if the snapshot is not wanted or where it is cannot be found
     */
    void Configure(const core::IniFile::Group& group) override;
    /** Always. */
    bool IsConfigured() const override;
    ~FolderEventHandler() override = default;

    /**
     * Throws nothing. Blocks until the picture is written; before that, with a limit, for one shell command and two
     * more for each file deleted and, for the folder of the SD card, for a query of 5 s at most.
     */
    void PerformAction(Event& event) override;

private:
    struct Settings {
        std::string destinationPath;
        std::string sourcePath;
        std::string destName;
        std::string limitSize;
    };

    void SaveSnapshot();
    void MakeRoom(const std::string& directory, const std::string& source, uint64_t limit) const;
    void CopySnapshot(const std::string& source, const std::string& destination) const;
    bool Copy(const std::string& source, const std::string& destination) const;

    core::Logger& logger;
    Guarded<Settings> settings;
};

}  // namespace kelto::halvek::handler
