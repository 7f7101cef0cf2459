#include "companions/ctl/HandlerSteps.h"
#include "companions/ctl/LongestTime.h"
#include "companions/ctl/ShellWords.h"
#include "handler/SnapshotPath.h"

#include <string>

namespace kelto::halvek::ctl {

namespace {

void CheckUploadWords(Examination& examination, const HandlerView& handler) {
    for (const char* key : {"Server", "Username", "Password", "BasePath", "DestName"}) {
        const std::string value = handler.Value(key);
        const bool isNeeded = std::string(key) != "BasePath" && std::string(key) != "DestName";
        if (value.empty() && isNeeded) {
            examination.AtValue(
                "HK3022", handler.GroupOf(key), key,
                "without a " + std::string(key) + " the words of the command shift, and every upload fails");
        } else if (!ShellWords::IsPlain(value)) {
            examination.AtValue("HK6005", handler.GroupOf(key), key,
                                "a shell reads this value: use letters, digits, . - _ and / only");
        }
    }
}

/** As the daemon puts the command together, where the folder is on the camera too. */
void CheckCommandLength(Examination& examination, const HandlerView& handler) {
    constexpr size_t longest = 255;
    const std::string* const snapshot = examination.Value(handler::snapshotGroup, "SnapshotPath");
    const std::string source = snapshot == nullptr || snapshot->empty() ? "/tmp/snapshot/img2.jpg" : *snapshot;
    std::string path = handler.Value("BasePath");
    path += path == "/" || path.empty() ? "" : "/";
    const std::string words = "ftpput -u  -p    " + handler.Value("Username") + handler.Value("Password") +
                              handler.Value("Server") + path + source;
    const size_t length = words.size() + LongestTime::Expanded(handler.Value("DestName")).size();
    if (length > longest) {
        examination.AtGroup("HK6006", handler.MainGroup(),
                            "the upload's command has up to " + std::to_string(length) + " bytes and is cut at 255");
    }
}

}  // namespace

void CheckUpload(Examination& examination, const HandlerView& handler) {
    CheckUploadWords(examination, handler);
    CheckCommandLength(examination, handler);
    if (handler.Value("BasePath").empty()) {
        Finding& finding =
            examination.AtValue("HK3024", handler.GroupOf("BasePath"), "BasePath",
                                "without a BasePath the upload goes to the root, with a Warning each time; "
                                "write BasePath=/ if that is meant");
        finding.fix = "BasePath=/";
        finding.foretells = "\tNo destination path found, using default";
    }
}

}  // namespace kelto::halvek::ctl
