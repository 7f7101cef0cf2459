#include "companions/mqtt/CameraSettings.h"

#include "companions/common/DaemonSettings.h"

namespace kelto::halvek::mqtt {

using companion::DaemonSettings;

std::string CameraSettings::Path() {
    return DaemonSettings::Path();
}

CameraFacts CameraSettings::Read(const std::string& path) {
    const DaemonSettings::Groups groups = DaemonSettings::Read(path);
    CameraFacts facts;
    if (const std::string picture = DaemonSettings::ValueOf(groups, "Video/Quickview", "SnapshotPath");
        !picture.empty()) {
        facts.picture = picture;
    }
    for (const auto& [name, keys] : groups) {
        const bool isSource = name.starts_with("Events/Source#") && name.find('/', 7) == std::string::npos;
        const auto type = keys.find("Type");
        if (!isSource || type == keys.end() || type->second.empty()) {
            continue;
        }
        facts.types.insert(type->second == "Analytics" ? "AnalyticsAlert" : type->second);
        const std::string details = name + "/Alarm";
        const std::string bank = DaemonSettings::ValueOf(groups, details, "BankName");
        const std::string index = DaemonSettings::ValueOf(groups, details, "Index");
        if (type->second == "Alarm" && !bank.empty() && !index.empty()) {
            facts.alarms.emplace(bank, index);
        }
    }
    return facts;
}

}  // namespace kelto::halvek::mqtt
