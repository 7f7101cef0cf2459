#include "companions/ctl/HandlerSteps.h"
#include "env/SettingsReader.h"
#include "handler/SnapshotPath.h"
#include "kelto/osa/Exception.h"

#include <optional>
#include <string>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* leftOut = "Error LoadHandlers: ";

/** Why there is no snapshot; empty if there is one. */
std::string WhyNoSnapshot(const Examination& examination) {
    try {
        static_cast<void>(
            SettingsReader::Read(examination.ini, handler::snapshotGroup, handler::snapshotKeys.Text("SnapshotPath")));
        return "";
    } catch (const osa::Exception& exception) {
        return exception.what();
    }
}

void ReportNoSnapshot(Examination& examination, const HandlerView& handler, const std::string& why) {
    const std::string cause =
        why.empty() ? "the SnapshotPath of [Video/Quickview] is empty" : "[Video/Quickview] names no SnapshotPath";
    if (handler.Type() == "Folder") {
        examination.AtGroup("HK3019", handler.Group(), cause + ": this handler is left out").foretells =
            leftOut + (why.empty() ? "FolderEventHandler: the path of the source file was not found" : why);
        return;
    }
    const bool isUpload = handler.Type() == "Ftp";
    if (!why.empty()) {
        Finding& finding = examination.AtGroup("HK3019", handler.Group(), cause);
        finding.severity = Severity::Warning;
        finding.foretells = (isUpload ? "\tFtpEventHandler: " : "\tEmailEventHandler: ") + why;
    }
    examination
        .AtGroup(
            "HK3023", handler.Group(),
            cause + (isUpload ? ": this uploads /tmp/snapshot/img2.jpg" : ": the mail goes without its attachment"))
        .foretells = isUpload ? "\tNo source file path found, using default"
                              : "\tEmailEventHandler: the user wanted an attachment, but none is found";
}

bool IsTrue(const Examination& examination, const HandlerView& handler, const BooleanKey& key) {
    try {
        return SettingsReader(examination.ini.FindGroup(handler.GroupOf(key.name))).Read(key);
    } catch (const osa::Exception&) {
        return false;
    }
}

}  // namespace

void CheckSnapshot(Examination& examination, const HandlerView& handler) {
    const bool isMail = handler.Type() == "Email";
    const BooleanKey attachment{.name = "Attachment", .absent = isMail ? std::optional(false) : std::nullopt};
    if (!IsTrue(examination, handler, attachment)) {
        return;
    }
    const std::string why = WhyNoSnapshot(examination);
    const std::string* const path = examination.Value(handler::snapshotGroup, "SnapshotPath");
    if (!why.empty() || path->empty()) {
        ReportNoSnapshot(examination, handler, why);
    }
}

void CheckAttachment(Examination& examination, const HandlerView& handler) {
    const std::string& type = handler.Type();
    if (!handler.Has("Attachment")) {
        Finding& finding =
            examination.AtGroup("HK3004", handler.MainGroup(), "Attachment=true is missing: this handler is left out");
        finding.fix = "Attachment=true";
        finding.foretells = std::string(leftOut) + "There is no key Attachment";
        return;
    }
    const core::IniFile::Group& group = examination.ini.FindGroup(handler.GroupOf("Attachment"));
    try {
        if (!SettingsReader(group).Read(BooleanKey{.name = "Attachment"})) {
            Finding& finding =
                examination.AtValue("HK3004", handler.GroupOf("Attachment"), "Attachment",
                                    "without the snapshot there is nothing to do: this handler is left out; "
                                    "allowed is true");
            finding.fix = "true";
            finding.foretells = leftOut + type + "EventHandler: No file attachment wanted, what's the point then?";
        }
    } catch (const osa::Exception&) {
        // What is neither true nor false has been reported with all such values.
    }
}

void CheckDestName(Examination& examination, const HandlerView& handler) {
    const std::string name = handler.Value("DestName");
    const std::string group = handler.GroupOf("DestName");
    if (name.empty()) {
        Finding& finding = examination.AtValue("HK3006", group, "DestName", "without a DestName every action fails");
        finding.fix = "DestName=%Y%m%d-%H%M%S.jpg";
        finding.foretells =
            AtEachEvent(handler, handler.Type() == "Ftp" ? "FtpEventHandler: Illegal filename"
                                                         : "FolderEventHandler: Illegal file name or path");
        return;
    }
    if (name.find('/') != std::string::npos || name == "..") {
        examination.AtValue("HK3033", group, "DestName", Quoted(name) + " leads out of the folder that is named");
    }
    if (handler.Type() == "Folder" && name.find('%') == std::string::npos) {
        examination
            .AtValue("HK3034", group, "DestName",
                     "the name is always the same, so that each snapshot replaces the last one")
            .fix = "%Y%m%d-%H%M%S-" + name;
    }
}

}  // namespace kelto::halvek::ctl
