#include "handler/SnapshotPath.h"

#include "env/SettingsReader.h"
#include "kelto/core/IniFile.h"
#include "kelto/settings/KeltoSettingsClient.h"

namespace kelto::halvek::handler {

std::string LookUpSnapshotPath() {
    settings::KeltoSettingsClient client(settings::OperationMode::LookUp);
    core::IniFile ini;
    client.GetSettings({snapshotGroup}, ini);
    return SettingsReader::Read(ini, snapshotGroup, snapshotKeys.Text("SnapshotPath"));
}

}  // namespace kelto::halvek::handler
