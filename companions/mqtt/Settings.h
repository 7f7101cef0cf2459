#pragma once

#include "companions/common/ConfigFile.h"
#include "companions/common/Credentials.h"
#include "companions/mqtt/BrokerAddress.h"
#include "companions/mqtt/Finding.h"

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::halvek::mqtt {

/** What the group [Mqtt] of the configuration says. A plain value; it holds no secret until Resolve has put it in. */
struct Settings {
    static constexpr const char* defaultPath = "/etc/halvek-mqtt/mqtt.conf";

    BrokerAddress broker;
    std::string id;
    /** Whether the id was made from the machine's own. */
    bool isIdMade = false;
    std::string prefix = "halvek";
    std::string user;
    /** The name of the secret. */
    std::string secretName;
    bool allowsPlain = false;
    std::string caFile;
    std::string certificate;
    bool hasDiscovery = false;
    /** Empty for all. */
    std::vector<std::string> types;
    size_t queue = 1000;
    std::chrono::seconds maxAge{300};
    std::vector<std::string> post;
    std::vector<std::string> postRegions;
    /** Empty for none. */
    std::string onvif;
    bool publishesPictures = false;

    /** What Resolve found. */
    std::string password;
    std::string keyFile;

    /** Whether events of this type are published. */
    bool Takes(std::string_view type) const;

    /**
     * Reads the group and adds what is wrong with it. The values are only good for anything if there is no error among
     * the findings.
     */
    static Settings Read(const companion::ConfigFile& file, std::vector<Finding>& findings);

    /** Puts in what the service manager handed over. Adds what is missing. */
    void Resolve(const companion::Credentials& credentials, const companion::ConfigFile& file,
                 std::vector<Finding>& findings);

    bool operator==(const Settings&) const = default;
};

}  // namespace kelto::halvek::mqtt
