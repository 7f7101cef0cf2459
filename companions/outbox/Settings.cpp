#include "companions/outbox/Settings.h"

#include "companions/outbox/FieldText.h"

#include <curl/curl.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <set>
#include <system_error>

namespace kelto::halvek::outbox {

using companion::ConfigEntry;
using companion::ConfigFile;
using companion::ConfigGroup;
using companion::ConfigPlace;
using companion::Credentials;

namespace {

constexpr std::string_view targetPrefix = "Target ";

struct Scheme {
    const char* name;
    uint16_t port;
    bool isMail;
    bool isEncrypted;
};
constexpr Scheme schemes[] = {
    {"ftp", 21, false, false}, {"ftps", 21, false, true}, {"ftps-implicit", 990, false, true},
    {"sftp", 22, false, true}, {"smtp", 25, true, false}, {"smtps", 465, true, true},
};

/** Reads one group after another; each value is read by a function of its key, which says what is wrong with it. */
class Reader {
public:
    using Problem = std::optional<std::string>;
    using Keys = std::map<std::string, std::function<Problem(const std::string&)>>;

    Reader(const ConfigFile& read, const Credentials& known, const std::set<std::string>& possible, Settings& result)
        : file(read), credentials(known), protocols(possible), settings(result) {}

    void Read() {
        for (const companion::ConfigFault& fault : file.Faults()) {
            Find(fault.place, fault.text);
        }
        for (const ConfigGroup& group : file.Groups()) {
            if (group.name == "Outbox") {
                ReadOutbox(group);
            } else if (group.name == "Mail") {
                ReadMail(group);
            } else if (group.name.starts_with(targetPrefix)) {
                ReadTarget(group);
            } else {
                Find(group.place, "there is no group [" + group.name + "]: [Outbox], [Target NAME] or [Mail]");
            }
        }
    }

private:
    void Find(const ConfigPlace& place, const std::string& text) {
        settings.findings.push_back({file.At(place), file.Path(), place, text});
    }

    void ReadKeys(const ConfigGroup& group, const Keys& keys) {
        std::set<std::string> seen;
        for (const ConfigEntry& entry : group.entries) {
            const auto key = keys.find(entry.key);
            if (key == keys.end()) {
                Find(entry.keyPlace, "there is no key " + entry.key + " in [" + group.name + "]");
            } else if (!seen.insert(entry.key).second) {
                Find(entry.keyPlace, entry.key + " comes twice");
            } else if (const Problem problem = key->second(entry.value)) {
                Find(entry.valuePlace, entry.key + ": " + *problem);
            }
        }
    }

    static Problem ReadSize(uint64_t& size, const std::string& value) {
        const size_t unit = value.find_first_not_of("0123456789");
        static const std::map<std::string, int64_t> units = {
            {"", 1}, {"K", 1 << 10U}, {"M", 1 << 20U}, {"G", 1 << 30U}};
        const auto factor = units.find(unit == std::string::npos ? "" : value.substr(unit));
        const auto number = FieldText::Number(value.substr(0, unit), INT32_MAX);
        if (factor == units.end() || !number || *number == 0) {
            return "no size such as 16M";
        }
        size = static_cast<uint64_t>(*number * factor->second);
        return {};
    }

    static Problem ReadAge(int64_t& milliseconds, const std::string& value) {
        const size_t unit = value.find_first_not_of("0123456789");
        static const std::map<std::string, int64_t> units = {{"", 1},     {"s", 1},     {"m", 60},
                                                             {"min", 60}, {"h", 3'600}, {"d", 86'400}};
        const auto factor = units.find(unit == std::string::npos ? "" : value.substr(unit));
        const auto number = FieldText::Number(value.substr(0, unit), INT32_MAX);
        if (factor == units.end() || !number || *number == 0) {
            return "no age such as 24h, or a number of seconds";
        }
        milliseconds = *number * factor->second * 1000;
        return {};
    }

    static Problem ReadYesNo(bool& flag, const std::string& value) {
        flag = value == "yes";
        return flag || value == "no" ? Problem() : "neither yes nor no";
    }

    Problem ReadDurability(const std::string& value) {
        static const std::map<std::string, Settings::Durability> words = {
            {"late", Settings::Durability::Late},
            {"early", Settings::Durability::Early},
            {"ram", Settings::Durability::Ram},
        };
        const auto word = words.find(value);
        if (word == words.end()) {
            return "none of late, early and ram";
        }
        settings.durability = word->second;
        return {};
    }

    void ReadOutbox(const ConfigGroup& group) {
        if (std::exchange(hasOutbox, true)) {
            Find(group.place, "[Outbox] comes twice");
        }
        ReadKeys(group, {
                            {"SpoolLimit", [&](const auto& value) { return ReadSize(settings.spoolLimit, value); }},
                            {"RamLimit", [&](const auto& value) { return ReadSize(settings.ramLimit, value); }},
                            {"FlashBudget", [&](const auto& value) { return ReadSize(settings.flashBudget, value); }},
                            {"MaxAge", [&](const auto& value) { return ReadAge(settings.maxAge, value); }},
                            {"MaxAge.mail", [&](const auto& value) { return ReadAge(settings.maxAgeMail, value); }},
                            {"Durability", [&](const auto& value) { return ReadDurability(value); }},
                            {"Post", [&](const auto& value) { return ReadYesNo(settings.postsTrouble, value); }},
                        });
        if (const ConfigEntry* post = group.Find("Post")) {
            settings.postPlace = post->valuePlace;
        }
    }

    /** SCHEME://HOST or SCHEME://HOST:PORT; an address of IPv6 stands in brackets. */
    Problem ReadUrl(Server& server, const std::string& value, bool isMail) const {
        const size_t mark = value.find("://");
        const std::string name = value.substr(0, mark);
        const auto scheme = std::find_if(std::begin(schemes), std::end(schemes), [&](const Scheme& candidate) {
            return candidate.name == name && candidate.isMail == isMail;
        });
        if (mark == std::string::npos || scheme == std::end(schemes)) {
            return isMail ? "not smtp://HOST or smtps://HOST"
                          : "not ftp://HOST, ftps://HOST, ftps-implicit://HOST or sftp://HOST";
        }
        if (!protocols.contains(name == "ftps-implicit" ? "ftps" : name)) {
            return "this machine's libcurl has no " + name;
        }
        std::string place = value.substr(mark + 3);
        if (!place.empty() && place.back() == '/') {
            place.pop_back();
        }
        size_t hostEnd = place.find(':');
        size_t hostBegin = 0;
        if (!place.empty() && place.front() == '[') {
            hostBegin = 1;
            hostEnd = place.find(']');
            if (hostEnd == std::string::npos) {
                return "a bracket is missing";
            }
        }
        server.scheme = name;
        server.host = place.substr(hostBegin, hostEnd == std::string::npos ? hostEnd : hostEnd - hostBegin);
        std::string rest = hostEnd == std::string::npos ? "" : place.substr(hostEnd + hostBegin);
        server.port = scheme->port;
        if (!rest.empty()) {
            const auto port = FieldText::Number(rest.substr(1), 65535);
            if (rest.front() != ':' || !port || *port == 0) {
                return "no port behind the host";
            }
            server.port = static_cast<uint16_t>(*port);
        }
        if (server.host.empty() || server.host.find_first_of("/@?#% ") != std::string::npos) {
            return "a host is wanted, with a port or without: accounts and folders do not stand here";
        }
        return {};
    }

    Problem ReadSecret(Server& server, const std::string& value) {
        const std::optional<std::string> secret = credentials.Secret(value);
        if (secret) {
            server.password = *secret;
        }
        // Who asks from outside of the service may not see the secrets.
        return secret || !credentials.HasFolder() ? Problem() : "there is no secret " + value;
    }

    static Problem ReadTlsMax(Server& server, const std::string& value) {
        server.isTls12 = value == "1.2";
        return value == "1.2" || value == "1.3" ? Problem() : "neither 1.2 nor 1.3";
    }

    static Problem ReadFile(std::string& path, const std::string& value) {
        path = value;
        return access(value.c_str(), R_OK) == 0 ? Problem() : "the file cannot be read";
    }

    Keys ServerKeys(Server& server, bool& allowsPlain, bool& hasSecret) {
        return {
            {"User",
             [&](const auto& value) {
                 server.user = value;
                 return Problem();
             }},
            {"Secret",
             [&, this](const auto& value) {
                 hasSecret = true;
                 return ReadSecret(server, value);
             }},
            {"TlsMax", [&](const auto& value) { return ReadTlsMax(server, value); }},
            {"CaFile", [&](const auto& value) { return ReadFile(server.caFile, value); }},
            {"Pin",
             [&](const auto& value) {
                 server.pin = value;
                 return value.starts_with("sha256//") ? Problem() : "not sha256// and a checksum in base64";
             }},
            {"AllowPlain", [&](const auto& value) { return ReadYesNo(allowsPlain, value); }},
        };
    }

    void ReadTarget(const ConfigGroup& group) {
        Target target{.name = group.name.substr(targetPrefix.size()), .match = {}, .server = {}};
        bool allowsPlain = false;
        bool hasSecret = false;
        Keys keys = ServerKeys(target.server, allowsPlain, hasSecret);
        keys["Match"] = [&](const auto& value) {
            target.match = value;
            return value.empty() ? Problem("a host is wanted") : Problem();
        };
        keys["Url"] = [&](const auto& value) { return ReadUrl(target.server, value, false); };
        keys["MakeFolders"] = [&](const auto& value) { return ReadYesNo(target.makesFolders, value); };
        keys["Rename"] = [&](const auto& value) { return ReadYesNo(target.renames, value); };
        ReadKeys(group, keys);
        if (group.Find("Url") == nullptr) {
            Find(group.place, "Url is missing");
        }
        if (target.match.empty()) {
            target.match = target.server.host;
        }
        if (hasSecret && target.server.scheme == "ftp" && !allowsPlain) {
            Find(group.Find("Url")->valuePlace, "the secret would be sent in plain text: see AllowPlain");
        }
        for (const Target& other : settings.targets) {
            if (other.name == target.name || strcasecmp(other.match.c_str(), target.match.c_str()) == 0) {
                Find(group.place, "[" + std::string(targetPrefix) + other.name + "] has the same name or Match");
            }
        }
        settings.targets.push_back(std::move(target));
    }

    void ReadMail(const ConfigGroup& group) {
        if (settings.mail || std::exchange(hasMail, true)) {
            Find(group.place, "[Mail] comes twice");
        }
        MailRelay relay;
        bool allowsPlain = false;
        bool hasSecret = false;
        bool isEsmtprc = group.Find("Relay") == nullptr;
        Keys keys = ServerKeys(relay.server, allowsPlain, hasSecret);
        keys["Relay"] = [&](const auto& value) {
            isEsmtprc = value == "esmtprc";
            return isEsmtprc ? Problem() : ReadUrl(relay.server, value, true);
        };
        keys["Sender"] = [&](const auto& value) {
            relay.sender = value;
            return Problem();
        };
        ReadKeys(group, keys);
        relay.server.mustUseTls = hasSecret && !allowsPlain;
        if (!isEsmtprc) {
            settings.mail = relay;
        }
    }

    const ConfigFile& file;
    const Credentials& credentials;
    const std::set<std::string>& protocols;
    Settings& settings;
    bool hasOutbox = false;
    bool hasMail = false;
};

}  // namespace

const Target* Settings::Find(const std::string& host) const {
    const auto found = std::find_if(targets.begin(), targets.end(), [&](const Target& target) {
        return strcasecmp(target.match.c_str(), host.c_str()) == 0;
    });
    return found == targets.end() ? nullptr : &*found;
}

std::set<std::string> Settings::LibraryProtocols() {
    std::set<std::string> names;
    for (const char* const* name = curl_version_info(CURLVERSION_NOW)->protocols; *name != nullptr; ++name) {
        names.insert(*name);
    }
    return names;
}

Settings Settings::Parse(const ConfigFile& file, const Credentials& credentials,
                         const std::set<std::string>& protocols) {
    Settings settings;
    Reader(file, credentials, protocols, settings).Read();
    return settings;
}

Settings Settings::Load(const std::string& path, const Credentials& credentials) {
    try {
        return Parse(ConfigFile::Load(path), credentials);
    } catch (const std::system_error& error) {
        Settings settings;
        if (error.code().value() != ENOENT) {
            settings.findings.push_back({path, path, {1, 1}, error.what()});
        }
        return settings;
    }
}

}  // namespace kelto::halvek::outbox
