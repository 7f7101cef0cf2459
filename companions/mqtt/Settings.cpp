#include "companions/mqtt/Settings.h"

#include "companions/mqtt/MachineId.h"
#include "companions/mqtt/Topics.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <set>

namespace kelto::halvek::mqtt {

using companion::ConfigEntry;
using companion::ConfigFile;
using companion::ConfigGroup;
using companion::ConfigPlace;

namespace {

constexpr std::string_view groupName = "Mqtt";
constexpr size_t longestId = 64;
/** With it, id and the longest word of ours there is still room for an event's type. */
constexpr size_t longestPrefix = 200;
constexpr int largestQueue = 100000;
constexpr int largestMaxAge = 7 * 24 * 3600;

bool IsLetterOrDigit(char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || (byte >= '0' && byte <= '9');
}

bool IsId(std::string_view text) {
    return !text.empty() && text.size() <= longestId && std::all_of(text.begin(), text.end(), [](char byte) {
        return IsLetterOrDigit(byte) || byte == '_' || byte == '-';
    });
}

/** One or more levels that need no escape. */
bool IsPrefix(std::string_view text) {
    return !text.empty() && text.size() <= longestPrefix && text.front() != '/' && text.back() != '/' &&
           text.find("//") == std::string_view::npos && std::all_of(text.begin(), text.end(), [](char byte) {
               return IsLetterOrDigit(byte) || byte == '_' || byte == '-' || byte == '.' || byte == '/';
           });
}

/** What stands between the commas, without blanks around it. */
std::vector<std::string> Words(std::string_view text) {
    std::vector<std::string> words;
    while (!text.empty()) {
        const size_t end = std::min(text.find(','), text.size());
        std::string_view word = text.substr(0, end);
        word.remove_prefix(std::min(word.find_first_not_of(" \t"), word.size()));
        word.remove_suffix(word.size() - (word.find_last_not_of(" \t") + 1));
        words.emplace_back(word);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return words;
}

/** Takes the keys of the group one by one, and remembers what it was not asked for. */
class GroupReader {
public:
    GroupReader(const ConfigGroup& read, std::vector<Finding>& found) : group(read), findings(found) {}

    const ConfigEntry* Take(std::string_view key) {
        known.emplace(key);
        return group.Find(key);
    }

    void Text(std::string_view key, std::string& value) {
        if (const ConfigEntry* entry = Take(key); entry != nullptr) {
            value = entry->value;
        }
    }

    /** A text that a test must accept; empty stands for the default. */
    template <class Test>
    void Tested(std::string_view key, std::string& value, Test accepts, const std::string& what) {
        const ConfigEntry* entry = Take(key);
        if (entry == nullptr || entry->value.empty()) {
            return;
        }
        if (!accepts(entry->value)) {
            Complain(entry->valuePlace, what);
            return;
        }
        value = entry->value;
    }

    int Number(std::string_view key, int absent, int highest) {
        const ConfigEntry* entry = Take(key);
        if (entry == nullptr || entry->value.empty()) {
            return absent;
        }
        int number = 0;
        const char* end = entry->value.data() + entry->value.size();
        const auto result = std::from_chars(entry->value.data(), end, number);
        if (result.ec != std::errc() || result.ptr != end || number < 1 || number > highest) {
            Complain(entry->valuePlace, std::string(key) + " is a whole number from 1 to " + std::to_string(highest));
            return absent;
        }
        return number;
    }

    /** Which of two words it is: whether it is the first. */
    bool Choice(std::string_view key, std::string_view yes, std::string_view no) {
        const ConfigEntry* entry = Take(key);
        if (entry == nullptr || entry->value.empty() || entry->value == no) {
            return false;
        }
        if (entry->value != yes) {
            Complain(entry->valuePlace, std::string(key) + " is " + std::string(yes) + " or " + std::string(no));
            return false;
        }
        return true;
    }

    /** Words of which none is empty and none comes twice. */
    std::vector<std::string> List(std::string_view key) {
        const ConfigEntry* entry = Take(key);
        if (entry == nullptr) {
            return {};
        }
        std::vector<std::string> words = Words(entry->value);
        std::set<std::string> seen;
        for (const std::string& word : words) {
            if (word.empty()) {
                Complain(entry->valuePlace, "a name between the commas of " + std::string(key) + " is empty");
            } else if (!seen.insert(word).second) {
                Warn(entry->valuePlace, word + " stands twice in " + std::string(key));
            }
        }
        return words;
    }

    void Complain(ConfigPlace place, const std::string& text) { findings.push_back({true, place, text}); }
    void Warn(ConfigPlace place, const std::string& text) { findings.push_back({false, place, text}); }

    void ComplainOfOthers() {
        std::set<std::string> seen;
        for (const ConfigEntry& entry : group.entries) {
            if (known.count(entry.key) == 0) {
                Complain(entry.keyPlace, "there is no key " + entry.key);
            } else if (!seen.insert(entry.key).second) {
                Complain(entry.keyPlace, entry.key + " stands twice");
            }
        }
    }

    /** Where the group's own key stands, else the group. */
    ConfigPlace PlaceOf(std::string_view key) const {
        const ConfigEntry* entry = group.Find(key);
        return entry == nullptr ? group.place : entry->valuePlace;
    }

private:
    const ConfigGroup& group;
    std::vector<Finding>& findings;
    std::set<std::string> known;
};

void ReadBroker(GroupReader& reader, Settings& settings) {
    const ConfigEntry* entry = reader.Take("Broker");
    if (entry == nullptr || entry->value.empty()) {
        reader.Complain(entry == nullptr ? reader.PlaceOf("") : entry->valuePlace,
                        "Broker is missing: mqtts://HOST:8883 or mqtt://HOST:1883");
        return;
    }
    const std::optional<BrokerAddress> address = BrokerAddress::Parse(entry->value);
    if (!address) {
        reader.Complain(entry->valuePlace, "Broker is mqtts://HOST:PORT or mqtt://HOST:PORT");
        return;
    }
    settings.broker = *address;
}

void ReadId(GroupReader& reader, Settings& settings) {
    reader.Tested("Id", settings.id, IsId, "Id is made of 1 to 64 letters, digits, _ and -");
    if (settings.id.empty()) {
        settings.id = MachineId::ForThisProgram();
        settings.isIdMade = true;
    }
    if (settings.id.empty()) {
        reader.Complain(reader.PlaceOf("Id"), "Id is missing, and this machine has no id of its own");
    }
}

void ReadLogin(GroupReader& reader, Settings& settings) {
    reader.Text("User", settings.user);
    reader.Text("Secret", settings.secretName);
    settings.allowsPlain = reader.Choice("AllowPlain", "yes", "no");
    reader.Text("CaFile", settings.caFile);
    reader.Text("Cert", settings.certificate);
    if (settings.user.empty() && !settings.secretName.empty()) {
        reader.Complain(reader.PlaceOf("Secret"), "a Secret without a User");
    }
    if (settings.broker.host.empty() || settings.broker.usesTls) {
        return;
    }
    if (!settings.secretName.empty() && !settings.allowsPlain) {
        reader.Complain(reader.PlaceOf("Broker"),
                        "mqtt:// would send the secret in the clear: mqtts://, or AllowPlain=yes");
    }
    for (const char* key : {"CaFile", "Cert"}) {
        if (const ConfigEntry* entry = reader.Take(key); entry != nullptr && !entry->value.empty()) {
            reader.Complain(entry->keyPlace, std::string(key) + " is for mqtts:// only");
        }
    }
}

void CheckFile(GroupReader& reader, std::string_view key, const std::string& path) {
    if (path.empty()) {
        return;
    }
    if (path.front() != '/') {
        reader.Complain(reader.PlaceOf(key), std::string(key) + " is a path from the root");
    } else if (access(path.c_str(), R_OK) != 0) {
        reader.Complain(reader.PlaceOf(key), path + " cannot be read");
    }
}

void ReadTypes(GroupReader& reader, Settings& settings) {
    settings.types = reader.List("Types");
    if (settings.types == std::vector<std::string>{"*"}) {
        settings.types.clear();
    }
    for (const std::string& type : settings.types) {
        if (type.find('*') != std::string::npos) {
            reader.Complain(reader.PlaceOf("Types"), "Types is * for all, or their exact names");
            return;
        }
    }
}

bool CanBePosted(std::string_view type) {
    return type.find_first_of("]*\r\n") == std::string_view::npos;
}

void ReadPosting(GroupReader& reader, Settings& settings) {
    settings.post = reader.List("Post");
    settings.postRegions = reader.List("PostRegions");
    if (!std::all_of(settings.post.begin(), settings.post.end(), CanBePosted)) {
        reader.Complain(reader.PlaceOf("Post"), "Post is a list of exact types: * and ] cannot be in them");
    }
    if (settings.post.empty() && !settings.postRegions.empty()) {
        reader.Warn(reader.PlaceOf("PostRegions"), "PostRegions says nothing without Post");
    }
}

Settings ReadGroup(const ConfigGroup& group, std::vector<Finding>& findings) {
    Settings settings;
    GroupReader reader(group, findings);
    ReadBroker(reader, settings);
    ReadId(reader, settings);
    const std::string levels = " is made of letters, digits, ., _ and -, with single slashes between";
    reader.Tested("Prefix", settings.prefix, IsPrefix, "Prefix" + levels);
    ReadLogin(reader, settings);
    CheckFile(reader, "CaFile", settings.caFile);
    CheckFile(reader, "Cert", settings.certificate);
    settings.hasDiscovery = reader.Choice("Discovery", "homeassistant", "off");
    ReadTypes(reader, settings);
    settings.queue = static_cast<size_t>(reader.Number("Queue", 1000, largestQueue));
    settings.maxAge = std::chrono::seconds(reader.Number("MaxAge", 300, largestMaxAge));
    ReadPosting(reader, settings);
    reader.Tested("Onvif", settings.onvif, IsPrefix, "Onvif" + levels);
    settings.publishesPictures = reader.Choice("Snapshot", "on", "off");
    reader.ComplainOfOthers();
    return settings;
}

}  // namespace

bool Settings::Takes(std::string_view type) const {
    return types.empty() || std::find(types.begin(), types.end(), type) != types.end();
}

Settings Settings::Read(const ConfigFile& file, std::vector<Finding>& findings) {
    for (const companion::ConfigFault& fault : file.Faults()) {
        findings.push_back({true, fault.place, fault.text});
    }
    const ConfigGroup* own = nullptr;
    for (const ConfigGroup& group : file.Groups()) {
        if (group.name != groupName) {
            findings.push_back({true, group.place, "there is no group " + group.name + ", only Mqtt"});
        } else if (own != nullptr) {
            findings.push_back({true, group.place, "a second group Mqtt"});
        } else {
            own = &group;
        }
    }
    if (own == nullptr) {
        findings.push_back({true, {1, 1}, "the group [Mqtt] is missing"});
        return {};
    }
    return ReadGroup(*own, findings);
}

void Settings::Resolve(const companion::Credentials& credentials, const ConfigFile& file,
                       std::vector<Finding>& findings) {
    const auto place = [&](std::string_view key) {
        for (const ConfigGroup& group : file.Groups()) {
            if (const ConfigEntry* entry = group.Find(key); entry != nullptr) {
                return entry->valuePlace;
            }
        }
        return ConfigPlace{1, 1};
    };
    if (!secretName.empty()) {
        if (const std::optional<std::string> secret = credentials.Secret(secretName)) {
            password = *secret;
        } else {
            findings.push_back({true, place("Secret"), "there is no " + secretName + " among the secrets"});
        }
    }
    if (!certificate.empty()) {
        if (const std::optional<std::string> key = credentials.PathOf("client.key")) {
            keyFile = *key;
        } else {
            findings.push_back({true, place("Cert"), "the credential client.key, the certificate's key, is missing"});
        }
    }
}

}  // namespace kelto::halvek::mqtt
