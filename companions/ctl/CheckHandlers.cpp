#include "companions/ctl/Checks.h"
#include "companions/ctl/Examination.h"
#include "companions/ctl/HandlerSteps.h"
#include "companions/ctl/HandlerView.h"
#include "companions/ctl/KeyCheck.h"
#include "companions/ctl/KnownNames.h"
#include "companions/ctl/Nearest.h"
#include "companions/ctl/ValueForm.h"
#include "env/SettingsReader.h"
#include "kelto/osa/Exception.h"
#include "monitor/EventMonitor.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* leftOut = "Error LoadHandlers: ";
constexpr const char* eachEvent = "EventHandler: not configured";

// --- the type

void ReportNoType(Examination& examination, const HandlerView& handler) {
    Finding& finding =
        examination.AtGroup("HK3001", handler.Group(),
                            "[" + handler.Group() +
                                "] has no Type: it is left out; allowed are Relay, Preset, Tour, Folder, "
                                "Ftp, Email and Extern");
    try {
        SettingsReader::Read(examination.ini, handler.Group(), EventMonitor::typeKeys.Text("Type"));
    } catch (const osa::Exception& exception) {
        finding.foretells = std::string(leftOut) + exception.what();
    }
}

bool IsKnownType(const std::string& type) {
    const std::vector<std::string> known = KnownNames::HandlerTypeNames();
    return std::find(known.begin(), known.end(), type) != known.end();
}

void ReportUnknownType(Examination& examination, const HandlerView& handler) {
    const std::vector<std::string> known = KnownNames::HandlerTypeNames();
    const std::string bare = ValueForm::Bare(handler.Type());
    const auto sameWord = std::find_if(known.begin(), known.end(),
                                       [&](const std::string& name) { return Nearest::IsEqualButForCase(name, bare); });
    const bool isCase = sameWord != known.end() && bare == handler.Type();
    const std::optional<std::string> nearest =
        sameWord != known.end() ? std::optional(*sameWord) : Nearest::Find(bare, known);
    Finding& finding = examination.AtValue(isCase ? "HK1012" : "HK3016", handler.Group(), "Type",
                                           Quoted(handler.Type()) + " is no type of handler" +
                                               (nearest ? "; did you mean " + *nearest + "?" : "") +
                                               " Allowed are Relay, Preset, Tour, Folder, Ftp, Email and Extern");
    if (!nearest) {
        finding.text = Quoted(handler.Type()) +
                       " is no type of handler; allowed are Relay, Preset, Tour, Folder, Ftp, Email and Extern";
    }
    finding.fix = nearest;
    finding.foretells = "CreateHandlerByName failed for " + handler.Type();
}

// --- keys of every type

void ReportOutOfRange(Examination& examination, const HandlerView& handler, const std::string& group,
                      const IntegerKey& key, int32_t number) {
    const std::string name = key.name;
    const std::string value = std::to_string(number);
    if (name == "Index" && number == -1) {
        examination
            .AtValue("HK3013", group, name,
                     "-1 counts as not configured: each event fails, also for the handlers "
                     "behind this one; allowed is 0 and more")
            .foretells = AtEachEvent(handler, eachEvent);
    } else if (name == "Index") {
        examination.AtValue("HK3012", group, name,
                            "there is no relay " + value +
                                ": the camera refuses every action; "
                                "allowed is 0 and more");
    } else {
        const std::string high =
            key.highest == std::numeric_limits<int32_t>::max() ? " and more" : " to " + std::to_string(key.highest);
        examination.AtValue("HK3012", group, name,
                            value + " is out of range: the daemon takes " + std::to_string(key.absent) +
                                "; allowed is " + std::to_string(key.lowest) + high);
    }
}

void CheckKeys(Examination& examination, const HandlerView& handler) {
    const bool needsAttachment = handler.Type() == "Folder" || handler.Type() == "Ftp";
    for (const SettingsKey& key : KnownNames::KeysOfHandler(handler.Type())) {
        const std::string name(NameOf(key));
        const bool isAttachment = needsAttachment && name == "Attachment";
        KeyCheck check(examination, {isAttachment ? "HK3004" : "HK3011", leftOut},
                       [&](const std::string& group, const IntegerKey& integer, int32_t number) {
                           ReportOutOfRange(examination, handler, group, integer, number);
                       });
        check.Check(handler.GroupOf(name), key);
    }
}

void CheckBothGroups(Examination& examination, const HandlerView& handler) {
    for (const auto& [key, value] : examination.ini.FindGroup(handler.Group())) {
        const std::string* const below = examination.Value(handler.Group() + "/" + handler.Type(), key);
        if (key != "Type" && below != nullptr) {
            examination.AtKey(
                "HK3029", handler.Group(), key,
                "the value in [" + handler.Group() + "/" + handler.Type() + "] wins; this one means nothing");
        }
    }
}

// --- relays and the head

void CheckRelay(Examination& examination, const HandlerView& handler) {
    if (!handler.Has("BankName")) {
        examination.AtGroup("HK3014", handler.Group(),
                            "without BankName the camera has to answer when this is loaded, or it is left out");
    }
}

void CheckId(Examination& examination, const HandlerView& handler) {
    if (handler.Value("Id").empty()) {
        examination
            .AtValue("HK3005", handler.GroupOf("Id"), "Id",
                     "without an Id each event fails, also for the handlers behind this one")
            .foretells = AtEachEvent(handler, eachEvent);
    }
}

/** Of the handlers that may act: that which drives a relay first, and the others. */
void CheckSharedRelays(Examination& examination, const std::vector<HandlerView>& handlers) {
    std::map<std::pair<std::string, std::string>, std::string> drivenBy;
    for (const HandlerView& handler : handlers) {
        if (handler.Type() != "Relay" || handler.SourceIds().empty()) {
            continue;
        }
        const std::string index = handler.Has("Index") ? handler.Value("Index") : "0";
        const auto [first, isFirst] = drivenBy.emplace(std::pair(handler.Value("BankName"), index), handler.Group());
        if (!isFirst) {
            examination.AtValue("HK3010", handler.GroupOf("Index"), "Index",
                                "[" + first->second + "] drives this relay too");
        }
    }
}

void CheckHandler(Examination& examination, const HandlerView& handler) {
    if (handler.Type().empty() && examination.Value(handler.Group(), "Type") == nullptr) {
        ReportNoType(examination, handler);
        return;
    }
    if (!IsKnownType(handler.Type())) {
        ReportUnknownType(examination, handler);
        return;
    }
    using Step = void (*)(Examination&, const HandlerView&);
    static const std::map<std::string, std::vector<Step>> steps = {
        {"Relay", {CheckRelay}},
        {"Preset", {CheckId}},
        {"Tour", {CheckId}},
        {"Folder", {CheckAttachment, CheckSnapshot, CheckFolder, CheckDestName}},
        {"Ftp", {CheckAttachment, CheckSnapshot, CheckUpload, CheckDestName}},
        {"Email", {CheckSnapshot, CheckMail}},
    };
    CheckKeys(examination, handler);
    CheckBothGroups(examination, handler);
    if (handler.Type() == "Extern") {
        examination.AtValue("HK3028", handler.Group(), "Type",
                            "there is always a handler that passes on all events; this one does it a second time");
        return;
    }
    for (const Step step : steps.at(handler.Type())) {
        step(examination, handler);
    }
}

}  // namespace

void CheckHandlers(Examination& examination) {
    const std::vector<HandlerView> handlers = HandlerView::All(examination);
    for (const HandlerView& handler : handlers) {
        CheckHandler(examination, handler);
    }
    CheckSharedRelays(examination, handlers);
}

}  // namespace kelto::halvek::ctl
