#pragma once

#include "env/SettingsKeys.h"
#include "handler/EventHandler.h"
#include "handler/SnapshotPath.h"

#include <string>
#include <vector>

namespace kelto::core {
class Logger;
}

namespace kelto::inet {
class EmailMessage;
}

namespace kelto::halvek::handler {

/**
 * Mails a text at every event, with the date and time put in as it is sent; with the event's properties and the
 * camera's snapshot if wanted.
 *
 * The system's mail program does the sending. May act on several threads at once: what Configure has read is only read
 * afterwards.
 */
class EmailEventHandler : public EventHandler {
public:
    static constexpr SettingsKeys keys{TextKey{.name = "To"},
                                       TextKey{.name = "From"},
                                       TextKey{.name = "Subject"},
                                       TextKey{.name = "Message"},
                                       BooleanKey{.name = "Attachment", .absent = false},
                                       BooleanKey{.name = "RawEventData", .absent = false}};

    /** @param lookUp gives the snapshot's path at every configuration; may throw */
    explicit EmailEventHandler(SnapshotLookUp lookUp = LookUpSnapshotPath);

    /**
     * Reads "To", "From", "Subject", "Message", "Attachment" and "RawEventData"; all may be absent. "Message" is base64
     * and, decoded, a format for strftime. With "Attachment" it looks up where the camera keeps its snapshot; without
     * such a place it mails without.
     *
     * @throws kelto::osa::Exception for a value that is no bool where one is expected
     */
    void Configure(const core::IniFile::Group& group) override;
    /** Always true. */
    bool IsConfigured() const override;
    ~EmailEventHandler() override = default;

    /**
     * Throws nothing. Blocks until the mail program has ended, however long that takes. From the first mail on SIGPIPE
     * stays blocked on the calling thread, so that a mail program that dies does not take the daemon along.
     */
    void PerformAction(Event& event) override;

private:
    void ReadMessage(const core::IniFile::Group& group);
    void FindSnapshot();
    std::string ComposeMail(const Event& event) const;
    void AddTexts(inet::EmailMessage& message, const Event& event) const;

    core::Logger& logger;
    const SnapshotLookUp lookUpSnapshot;
    std::string from;
    std::string to;
    std::string subject;
    std::vector<char> messageTemplate;
    bool attachSnapshot = false;
    std::string snapshotPath;
    bool rawEventData = false;
};

}  // namespace kelto::halvek::handler
