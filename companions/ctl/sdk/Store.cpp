#include "companions/ctl/Store.h"

#include "companions/ctl/Failure.h"
#include "companions/ctl/Terminal.h"
#include "kelto/osa/Exception.h"
#include "kelto/settings/KeltoSettingsClient.h"

#include <utility>

namespace kelto::halvek::ctl {

namespace {

/** Everything: what is misspelt counts too. */
core::IniFile Fetch() {
    core::IniFile ini;
    settings::KeltoSettingsClient(settings::OperationMode::LookUp).GetSettings({"*"}, ini);
    return ini;
}

}  // namespace

Store Store::Read(const std::string& path) {
    static bool isTold = false;
    if (!isTold) {
        isTold = true;
        Terminal::Complain("this camera hands its settings out: they have no files and no lines");
    }
    try {
        core::IniFile ini = Fetch();
        const std::string text = ini.SaveToString();
        return {.path = path, .files = {{"", text}}, .fetched = std::move(ini)};
    } catch (const osa::Exception& exception) {
        throw Failure(exception.what());
    }
}

core::IniFile Store::Parse() const {
    return *fetched;
}

bool Store::Holds() const {
    try {
        return Fetch().GetGroups() == fetched->GetGroups();
    } catch (const osa::Exception&) {
        return false;
    }
}

}  // namespace kelto::halvek::ctl
