#pragma once

#include "companions/ctl/DaemonUser.h"
#include "companions/ctl/Examination.h"
#include "companions/ctl/HandlerView.h"

#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * What this machine, looked at as the daemon's user, has to say of the settings: programs, folders, the snapshot and
 * pipes. It looks at names, owners and modes; it opens nothing but folders and changes nothing. One thread.
 */
class MachineCheck {
public:
    explicit MachineCheck(Examination& examined);

    void Run();

private:
    void CheckHandler(const HandlerView& handler);
    void CheckProgram(const HandlerView& handler, const char* program);
    void CheckFolder(const HandlerView& handler);
    void CheckLimit(const HandlerView& handler, const std::string& folder);
    void CheckUpload(const HandlerView& handler);
    void CheckMail(const HandlerView& handler);
    void CheckSnapshot();
    void CheckEventPipe();
    void CheckOutputPipes();
    void CheckOutputPipe(const std::string& path);
    bool IsWritableInSandbox(const std::string& path) const;
    std::set<std::string> KnownEventTypes() const;

    Examination& examination;
    const DaemonUser user;
    std::string snapshot;
    std::set<std::string> missingPrograms;
    bool hasTakers = false;
    bool readersAreUnknown = false;
};

}  // namespace kelto::halvek::ctl
