#pragma once

#include <string>

namespace kelto::halvek::outbox {

/** The key by which an SFTP server is known. A plain value. */
class HostKey {
public:
    /**
     * Asks the server. @param place HOST or HOST:PORT
     *
     * @throws std::runtime_error if it cannot be asked
     */
    static HostKey Ask(const std::string& place);

    /** As files of known hosts have it: with the port in it, unless that is 22. */
    const std::string& Host() const { return host; }
    /** ssh-ed25519 and the like. */
    const std::string& Type() const { return type; }
    /** SHA256: and the checksum in base64, as ssh-keygen shows it. */
    std::string Fingerprint() const;

    /** Puts it into a file of known hosts, in place of the one that the host had. Throws std::system_error. */
    void Store(const std::string& path) const;

private:
    std::string host;
    std::string type;
    /** In base64. */
    std::string key;
};

}  // namespace kelto::halvek::outbox
