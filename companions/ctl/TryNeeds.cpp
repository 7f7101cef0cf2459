#include "companions/ctl/TryNeeds.h"

#include "companions/ctl/DaemonUser.h"
#include "companions/ctl/Terminal.h"
#include "handler/SnapshotPath.h"
#include "kelto/core/StringUtil.h"

#include <netdb.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <memory>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* defaultSnapshot = "/tmp/snapshot/img2.jpg";

TryNeed Program(const DaemonUser& user, const std::string& name) {
    const char* const path = std::getenv("PATH");
    for (const std::string& folder : core::StringUtil::Split(path == nullptr ? "" : path, ':')) {
        const std::string file = std::string(folder).append("/").append(name);
        struct stat status {};
        if (stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode) && user.MayRun(file)) {
            return {"program", true, Terminal::Escape(file)};
        }
    }
    return {"program", false, name + " is not on the daemon's PATH"};
}

TryNeed Snapshot(const Examination& examination, const DaemonUser& user) {
    const std::string* const set = examination.Value(handler::snapshotGroup, "SnapshotPath");
    const std::string path = set == nullptr || set->empty() ? defaultSnapshot : *set;
    const std::string shown = Terminal::Escape(path);
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        return {"snapshot", false, shown + " is not there"};
    }
    if (!S_ISREG(status.st_mode) || !user.MayRead(path)) {
        return {"snapshot", false, shown + " cannot be read by " + user.Name()};
    }
    const int64_t age = int64_t{std::time(nullptr)} - status.st_mtime;
    return {"snapshot", true,
            shown + ", " + std::to_string(status.st_size) + " bytes, " + std::to_string(age) + " s old"};
}

TryNeed Folder(const DaemonUser& user, const std::string& path) {
    const std::string shown = Terminal::Escape(path);
    struct stat status {};
    if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        return {"folder", false, shown + " is no folder"};
    }
    return user.MayWrite(path) ? TryNeed{"folder", true, shown}
                               : TryNeed{"folder", false, shown + " cannot be written to by " + user.Name()};
}

TryNeed Host(const std::string& name) {
    const std::string shown = Terminal::Escape(name);
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = name.empty() ? EAI_NONAME : getaddrinfo(name.c_str(), nullptr, &hints, &found);
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, freeaddrinfo);
    return error == 0 ? TryNeed{"host", true, shown + " has an address"}
                      : TryNeed{"host", false, "\"" + shown + "\" has no address: " + gai_strerror(error)};
}

}  // namespace

std::vector<TryNeed> TryNeeds::Of(const CheckedStore& checked, const HandlerView& handler) {
    const Examination& examination = *checked.examination;
    const DaemonUser user = DaemonUser::Find();
    std::vector<TryNeed> needs;
    if (handler.Type() == "Ftp") {
        needs.push_back(Program(user, "ftpput"));
        needs.push_back(Host(handler.Value("Server")));
    }
    if (handler.Type() == "Email") {
        needs.push_back(Program(user, "esmtp"));
    }
    if (handler.Type() == "Folder") {
        needs.push_back(Folder(user, handler.Value("DestinationPath")));
    }
    if (handler.Type() == "Ftp" || handler.Type() == "Folder" || handler.Value("Attachment") == "true") {
        needs.push_back(Snapshot(examination, user));
    }
    for (const Finding& finding : checked.examination->Findings()) {
        const bool isOurs = finding.group == handler.Group() || finding.group.starts_with(handler.Group() + "/");
        if (isOurs && finding.severity == Severity::Error) {
            needs.push_back({finding.entry->id, false, Terminal::Escape(finding.text)});
        }
    }
    return needs;
}

}  // namespace kelto::halvek::ctl
