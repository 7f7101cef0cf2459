#pragma once

#include "companions/common/ConfigFile.h"
#include "companions/common/Credentials.h"

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kelto::halvek::outbox {

/** Something wrong in a file. */
struct Finding {
    /** FILE:LINE:COLUMN, or the file alone. */
    std::string place;
    std::string file;
    companion::ConfigPlace position;
    std::string text;
};

/** Where pictures or mails go, and how. */
struct Server {
    /** ftp, ftps (explicit), ftps-implicit, sftp, smtp, smtps */
    std::string scheme;
    std::string host;
    uint16_t port = 0;
    /** Of pictures: empty for the account that ftpput was given. */
    std::string user;
    std::string password;
    std::string caFile;
    /** As libcurl has it: sha256//BASE64 */
    std::string pin;
    /** No newer TLS than 1.2. */
    bool isTls12 = false;
    /** For smtp: whether it begins with TLS, or else fails; false is "if the server can". */
    bool mustUseTls = false;
    /** For smtp: TLS is not even tried. */
    bool neverUsesTls = false;

    bool operator==(const Server&) const = default;
};

struct Target {
    std::string name;
    /** The host as the daemon names it. */
    std::string match;
    Server server;
    bool makesFolders = false;
    bool renames = true;

    bool operator==(const Target&) const = default;
};

struct MailRelay {
    Server server;
    /** Instead of the address in From; empty for that one. */
    std::string sender;

    bool operator==(const MailRelay&) const = default;
};

/** What /etc/halvek-outbox/outbox.conf and the secrets say. A plain value. */
struct Settings {
    enum class Durability { Late, Early, Ram };

    /** In bytes. */
    uint64_t spoolLimit = uint64_t{16} * 1024 * 1024;
    uint64_t ramLimit = uint64_t{4} * 1024 * 1024;
    /** Bytes that may be written to flash in a day while a network is away. */
    uint64_t flashBudget = uint64_t{64} * 1024 * 1024;
    /** In milliseconds. */
    int64_t maxAge = int64_t{24} * 3'600'000;
    int64_t maxAgeMail = int64_t{48} * 3'600'000;
    Durability durability = Durability::Late;
    /** Whether the daemon is told of targets in trouble, and where that stands. */
    bool postsTrouble = false;
    companion::ConfigPlace postPlace;
    std::vector<Target> targets;
    /** None: /etc/esmtprc counts. */
    std::optional<MailRelay> mail;
    std::vector<Finding> findings;

    /** The target for a host; null if there is none. */
    const Target* Find(const std::string& host) const;

    /** Without the file everything is as above. Whatever is wrong stands in the findings. */
    static Settings Load(const std::string& path, const companion::Credentials& credentials);

    /** @param protocols what the library can do: "sftp" is not in all of them */
    static Settings Parse(const companion::ConfigFile& file, const companion::Credentials& credentials,
                          const std::set<std::string>& protocols = LibraryProtocols());

    /** As libcurl names them. */
    static std::set<std::string> LibraryProtocols();
};

}  // namespace kelto::halvek::outbox
