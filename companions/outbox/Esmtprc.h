#pragma once

#include "companions/outbox/Settings.h"

#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::outbox {

/** The configuration of esmtp, as far as it says where mails go. A plain value. */
class Esmtprc {
public:
    explicit Esmtprc(std::string_view text);

    /** Without the file: the mail server of this machine, as esmtp has it. */
    static Esmtprc Load(const std::string& path);

    /** Where mails of a sender go: its identity's server, or the default one. */
    const Server& ServerFor(const std::string& sender) const;

    /** What was not understood, with its line. */
    const std::vector<std::string>& Warnings() const { return warnings; }

    bool operator==(const Esmtprc&) const = default;

private:
    struct Identity {
        std::string address;
        Server server;

        bool operator==(const Identity&) const = default;
    };

    void TakeEntry(const std::string& key, const std::string& value, int line);

    /** The first is the default one. */
    std::vector<Identity> identities;
    std::vector<std::string> warnings;
};

}  // namespace kelto::halvek::outbox
