#pragma once

#include <map>
#include <optional>
#include <string>

namespace kelto::companion {

/**
 * What the service manager hands to a service and to nobody else (LoadCredential=): a folder of small files, one of
 * which, "secrets", has a line NAME=value for each secret. A plain value.
 */
class Credentials {
public:
    /**
     * Those of this process; none at all where the manager has set no CREDENTIALS_DIRECTORY, or handed over no secrets.
     *
     * @throws std::runtime_error for secrets that cannot be read, and for a line in them that is neither empty, a
     *         comment ("#") nor NAME=value. Its text names the line and holds no secret.
     */
    static Credentials OfThisProcess();

    /** As above, of a folder. */
    static Credentials OfFolder(const std::string& folder);

    /** Whether there is a folder at all: outside of the service nothing can be said about what is in it. */
    bool HasFolder() const { return !folder.empty(); }

    /** The secret of that name. It is taken from behind the first "=" to the line's end, blanks included. */
    std::optional<std::string> Secret(const std::string& name) const;

    /** Where the credential of that name is; nothing if it was not handed over, or is an empty line at most. */
    std::optional<std::string> PathOf(const std::string& name) const;

private:
    std::string folder;
    std::map<std::string, std::string> secrets;
};

}  // namespace kelto::companion
