#include "handler/SnapshotPath.h"

#include "kelto/core/IniFile.h"
#include "kelto/settings/KeltoSettingsClient.h"

namespace kelto::halvek::handler {

std::string LookUpSnapshotPath() {
    settings::KeltoSettingsClient client(settings::OperationMode::LookUp);
    core::IniFile ini;
    client.GetSettings({"Video/Quickview"}, ini);
    return ini.GetValue("Video/Quickview", "SnapshotPath");
}

}  // namespace kelto::halvek::handler
