#include "companions/ctl/MachineCheck.h"

#include "companions/ctl/Environment.h"
#include "companions/ctl/OpenPipes.h"
#include "handler/SizeWithSuffix.h"
#include "handler/SnapshotPath.h"
#include "kelto/core/StringUtil.h"
#include "kelto/osa/Exception.h"
#include "kelto/osa/FileUtils.h"
#include "kelto/osa/PathUtils.h"
#include "monitor/EventMonitor.h"
#include "source/EventServerSource.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* outputFolder = "/var/run/halvek";
constexpr const char* catchAll = "halvek.any";
constexpr const char* defaultSnapshot = "/tmp/snapshot/img2.jpg";
constexpr off_t mostAttached = off_t{16} << 20U;

bool StatusOf(const std::string& path, struct stat& status) {
    return stat(path.c_str(), &status) == 0;
}

uint64_t LimitOf(const std::string& text) {
    uint32_t bytes = 0;
    return core::StringUtil::TryParse(text, bytes) ? bytes : handler::ParseSizeWithSuffix(text);
}

bool IsBelow(const std::string& path, const std::string& folder) {
    return path == folder || path.starts_with(folder == "/" ? folder : folder + "/");
}

bool IsReadOnlyMount(const std::string& path) {
    struct statvfs status {};
    return statvfs(path.c_str(), &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
}

std::vector<std::string> EntriesOf(const std::string& folder) {
    std::vector<std::string> entries;
    try {
        osa::FileUtils::ListFiles(folder, entries);
    } catch (const osa::Exception&) {
        // One that cannot be listed is as good as empty: that it cannot be used is told elsewhere.
    }
    return entries;
}

bool IsOfType(const HandlerView& handler, const char* type) {
    return handler.Type() == type && !handler.SourceIds().empty();
}

std::string HomeOfDaemon() {
    if (const std::optional<RunningDaemon> daemon = RunningDaemon::Find()) {
        return FindVariable(daemon->environment, "HOME").value_or("");
    }
    if (const std::optional<Environment> unit = UnitEnvironment()) {
        return FindVariable(*unit, "HOME").value_or("");
    }
    const char* const home = std::getenv("HOME");
    return home == nullptr ? "" : home;
}

}  // namespace

MachineCheck::MachineCheck(Examination& examined) : examination(examined), user(DaemonUser::Find()) {
    const std::string* const path = examination.Value(handler::snapshotGroup, "SnapshotPath");
    snapshot = path == nullptr || path->empty() ? defaultSnapshot : *path;
}

void MachineCheck::Run() {
    for (const HandlerView& handler : HandlerView::All(examination)) {
        if (handler.IsWired()) {
            CheckHandler(handler);
        }
    }
    if (hasTakers) {
        CheckSnapshot();
    }
    if (examination.model && examination.model->FindSource(EventMonitor::serverGroup) != nullptr) {
        CheckEventPipe();
    }
    CheckOutputPipes();
}

void MachineCheck::CheckHandler(const HandlerView& handler) {
    if (IsOfType(handler, "Folder")) {
        hasTakers = true;
        CheckFolder(handler);
    } else if (IsOfType(handler, "Ftp")) {
        hasTakers = true;
        CheckUpload(handler);
    } else if (IsOfType(handler, "Email")) {
        CheckMail(handler);
    }
}

/** Once for each program. */
void MachineCheck::CheckProgram(const HandlerView& handler, const char* program) {
    const char* const path = std::getenv("PATH");
    const std::vector<std::string> folders = core::StringUtil::Split(path == nullptr ? "" : path, ':');
    const bool isThere = std::any_of(folders.begin(), folders.end(), [&](const std::string& folder) {
        struct stat status {};
        const std::string file = osa::PathUtils::PathConcat(folder, program);
        return StatusOf(file, status) && S_ISREG(status.st_mode) && user.MayRun(file);
    });
    if (!isThere && missingPrograms.insert(program).second) {
        examination.AtGroup(
            "HK5003", handler.Group(),
            "there is no " + std::string(program) + " on the daemon's PATH, " + (path == nullptr ? "" : path));
    }
}

// --- folders

/** Nothing says no on a machine without the service. */
bool MachineCheck::IsWritableInSandbox(const std::string& path) const {
    const std::vector<std::string> protection = UnitList("ProtectSystem").value_or(std::vector<std::string>());
    if (protection.empty() || protection.back() != "strict") {
        return true;
    }
    std::vector<std::string> writable = UnitList("ReadWritePaths").value_or(std::vector<std::string>());
    for (const std::string& name : UnitList("StateDirectory").value_or(std::vector<std::string>())) {
        writable.push_back("/var/lib/" + name);
    }
    return std::any_of(writable.begin(), writable.end(), [&](std::string folder) {
        folder.erase(0, folder.find_first_not_of("-+"));
        return IsBelow(path, folder);
    });
}

void MachineCheck::CheckFolder(const HandlerView& handler) {
    const std::string path = handler.Value("DestinationPath");
    const std::string real = osa::PathUtils::RealPath(path);
    struct stat status {};
    std::string wrong;
    if (path.empty()) {
        return;
    }
    if (real.empty() || !StatusOf(real, status)) {
        wrong = " is not there";
    } else if (!S_ISDIR(status.st_mode)) {
        wrong = " is no folder";
    } else if (!user.MayWrite(real) || !user.MayRun(real)) {
        wrong = " may not be written to by the user " + user.Name();
    } else if (IsReadOnlyMount(real)) {
        wrong = " is mounted read-only";
    } else if (!IsWritableInSandbox(real)) {
        wrong = " is read-only in the service's sandbox; a drop-in with ReadWritePaths=" + real + " opens it";
    }
    if (!wrong.empty()) {
        examination.AtValue("HK5002", handler.GroupOf("DestinationPath"), "DestinationPath", Quoted(path) + wrong);
        return;
    }
    CheckLimit(handler, real);
}

void MachineCheck::CheckLimit(const HandlerView& handler, const std::string& folder) {
    const uint64_t limit = LimitOf(handler.Value("LimitSize"));
    if (limit == 0) {
        return;
    }
    for (const char* const program : {"du", "find", "xargs", "ls", "head"}) {
        CheckProgram(handler, program);
    }
    struct stat status {};
    if (StatusOf(folder, status) && status.st_blocks == 0 && EntriesOf(folder).empty()) {
        examination.AtValue("HK5012", handler.GroupOf("DestinationPath"), "DestinationPath",
                            "the folder is empty, and du says 0 for it: with a limit nothing is saved");
    }
    if (StatusOf(snapshot, status) && limit <= UINT32_MAX && limit < 2 * static_cast<uint64_t>(status.st_size)) {
        examination.AtValue("HK5005", handler.GroupOf("LimitSize"), "LimitSize",
                            "the limit is below two snapshots, of " + std::to_string(status.st_size) + " bytes each");
    }
}

// --- uploads and mails

void MachineCheck::CheckUpload(const HandlerView& handler) {
    CheckProgram(handler, "ftpput");
    const std::string path = handler.Value("BasePath");
    if (!path.empty() && osa::PathUtils::RealPath(path).empty()) {
        examination
            .AtValue("HK5007", handler.GroupOf("BasePath"), "BasePath",
                     Quoted(path) + " is not on the camera: uploads go to the root of the server")
            .foretells = "\tNo destination path found, using default";
    }
}

void MachineCheck::CheckMail(const HandlerView& handler) {
    CheckProgram(handler, "esmtp");
    const std::string home = HomeOfDaemon();
    const bool hasOwn = !home.empty() && user.MayRead(home + "/.esmtprc");
    if (!hasOwn && !user.MayRead("/etc/esmtprc")) {
        examination.AtGroup("HK5011", handler.Group(),
                            "the user " + user.Name() + " can read neither ~/.esmtprc nor /etc/esmtprc");
    }
    struct stat status {};
    if (core::IniFile::GetBoolOrDefaultFromGroup(examination.ini.FindGroup(handler.GroupOf("Attachment")), "Attachment",
                                                 false)) {
        hasTakers = true;
        if (StatusOf(snapshot, status) && status.st_size > mostAttached) {
            examination.AtGroup("HK5014", handler.Group(), "the snapshot has more than 16 MiB and is not attached");
        }
    }
}

void MachineCheck::CheckSnapshot() {
    struct stat status {};
    std::string wrong;
    if (!StatusOf(snapshot, status)) {
        wrong = " is not there";
    } else if (!S_ISREG(status.st_mode)) {
        wrong = " is no regular file";
    } else if (!user.MayRead(snapshot)) {
        wrong = " may not be read by the user " + user.Name();
    } else {
        return;
    }
    examination.AtValue("HK5004", handler::snapshotGroup, "SnapshotPath", "the snapshot " + Quoted(snapshot) + wrong);
}

// --- pipes

void MachineCheck::CheckEventPipe() {
    constexpr mode_t readers = 0044;
    const std::string group = std::string(EventMonitor::serverGroup) + "/" + EventMonitor::serverType;
    const std::string* const set = examination.Value(group, "Path");
    const std::string path = set == nullptr ? source::EventServerSource::keys.Text("Path").absent : *set;
    struct stat status {};
    std::string wrong;
    Severity severity = Severity::Warning;
    if (path.empty()) {
        return;
    }
    if (!StatusOf(path, status)) {
        wrong = " is not there: the daemon makes it with mode 01232, which lets hardly anybody post";
        severity = Severity::Note;
    } else if (!S_ISFIFO(status.st_mode)) {
        wrong = " is no named pipe: the daemon reads it, and fires without a pause";
        severity = Severity::Error;
    } else if (!user.MayRead(path) || !user.MayWrite(path)) {
        wrong = " may not be opened by the user " + user.Name();
        severity = Severity::Error;
    } else if ((status.st_mode & readers) != 0) {
        wrong = " may be read by others than its owner: whoever reads it takes the posts of others; chmod 0620";
    } else {
        return;
    }
    const std::string place = examination.positions.Find(group) ? group : EventMonitor::serverGroup;
    examination.AtValue("HK5001", place, "Path", "the event pipe " + Quoted(path) + wrong).severity = severity;
}

std::set<std::string> MachineCheck::KnownEventTypes() const {
    std::set<std::string> types = {"Timer", "Alarm", "Park", "AnalyticsAlert", "MotionDetection"};
    for (const auto& [group, values] : examination.ini.GetGroups()) {
        const auto type = values.find("Type");
        if (group.starts_with(EventMonitor::sourcePrefix) && type != values.end()) {
            types.insert(type->second);
        }
    }
    return types;
}

void MachineCheck::CheckOutputPipes() {
    const std::vector<std::string> entries = EntriesOf(outputFolder);
    const std::set<std::string> types = KnownEventTypes();
    for (const std::string& path : entries) {
        const bool matches = path.find(catchAll) != std::string::npos ||
                             std::any_of(types.begin(), types.end(),
                                         [&](const std::string& type) { return path.find(type) != std::string::npos; });
        if (!matches) {
            examination.At("HK5013", {path, 1, 1}, "no event that the settings know goes to this pipe");
        }
        CheckOutputPipe(path);
    }
    if (readersAreUnknown) {
        examination.At("HK5019", {outputFolder, 1, 1}, "who reads the output pipes can only be told by root");
    }
}

void MachineCheck::CheckOutputPipe(const std::string& path) {
    struct stat status {};
    if (!StatusOf(path, status)) {
        return;
    }
    if (!S_ISFIFO(status.st_mode)) {
        examination.At("HK5009", {path, 1, 1}, "this is no pipe, and is written to from its beginning at each event");
    } else if (!OpenPipes::IsOpen(status)) {
        if (geteuid() == 0) {
            examination.At("HK5008", {path, 1, 1}, "no process has this pipe open: what is written to it is gone");
        } else {
            readersAreUnknown = true;
        }
    }
}

}  // namespace kelto::halvek::ctl
