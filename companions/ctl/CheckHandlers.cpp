#include "companions/ctl/Checks.h"
#include "companions/ctl/Examination.h"
#include "companions/ctl/HandlerView.h"
#include "companions/ctl/KeyCheck.h"
#include "companions/ctl/KnownNames.h"
#include "companions/ctl/LongestTime.h"
#include "companions/ctl/Nearest.h"
#include "companions/ctl/ShellWords.h"
#include "companions/ctl/ValueForm.h"
#include "env/SettingsReader.h"
#include "handler/SizeWithSuffix.h"
#include "handler/SnapshotPath.h"
#include "kelto/core/StringUtil.h"
#include "kelto/osa/Exception.h"
#include "monitor/EventMonitor.h"
#include "util/base64.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelto::halvek::ctl {

namespace {

constexpr const char* leftOut = "Error LoadHandlers: ";
constexpr const char* eachEvent = "EventHandler: not configured";
constexpr size_t longestBody = 5000;
constexpr size_t expansionFactor = 10;

/** What the daemon says when it runs into the fault; nothing of a handler that no event reaches. */
std::optional<std::string> AtEachEvent(const HandlerView& handler, const char* record) {
    return handler.IsWired() ? std::optional<std::string>(record) : std::nullopt;
}

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

// --- snapshots

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

// --- folders

uint64_t LimitOf(const std::string& text) {
    uint32_t bytes = 0;
    return core::StringUtil::TryParse(text, bytes) ? bytes : handler::ParseSizeWithSuffix(text);
}

bool SaysNoLimit(const std::string& text) {
    return text.empty() || text.find_first_not_of('0') == std::string::npos;
}

void CheckLimit(Examination& examination, const HandlerView& handler) {
    constexpr uint64_t leastPicture = 4096;
    const std::string text = handler.Value("LimitSize");
    const std::string group = handler.GroupOf("LimitSize");
    const uint64_t limit = LimitOf(text);
    if (limit == 0) {
        if (!SaysNoLimit(text)) {
            examination
                .AtValue("HK3018", group, "LimitSize",
                         Quoted(text) +
                             " is no size, which means no limit; allowed is a number of bytes, or a "
                             "whole number with one of k, M, G, T")
                .fix = ValueForm::Size(text);
        }
        return;
    }
    if (limit > UINT32_MAX) {
        examination
            .AtValue("HK5005", group, "LimitSize",
                     Quoted(text) + " is 4 GiB or more, which deletes nothing; write at most 4095M")
            .fix = "4095M";
    } else if (limit < leastPicture) {
        examination.AtValue("HK5005", group, "LimitSize",
                            Quoted(text) + " are " + std::to_string(limit) +
                                " bytes: the limit must hold the snapshot "
                                "twice");
    }
    const std::string path = handler.Value("DestinationPath");
    if (!ShellWords::IsPlain(path)) {
        examination.AtValue("HK5006", handler.GroupOf("DestinationPath"), "DestinationPath",
                            "with a LimitSize a shell reads this path: use letters, digits, . - _ and / only");
    }
}

void CheckFolder(Examination& examination, const HandlerView& handler) {
    const std::string path = handler.Value("DestinationPath");
    if (path.empty()) {
        examination
            .AtValue("HK3020", handler.GroupOf("DestinationPath"), "DestinationPath",
                     "without a DestinationPath every action fails")
            .foretells = AtEachEvent(handler, "FolderEventHandler: Illegal file name or path");
    } else if (path.front() != '/') {
        examination
            .AtValue("HK3021", handler.GroupOf("DestinationPath"), "DestinationPath",
                     Quoted(path) + " is looked up from the folder that the daemon was started in")
            .fix = "/" + path;
    }
    CheckLimit(examination, handler);
}

// --- uploads

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

// --- mails

bool IsBase64(const std::string& text) {
    constexpr const char* alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const size_t padding = text.find_first_not_of(alphabet);
    const std::string rest = padding == std::string::npos ? "" : text.substr(padding);
    return text.size() % 4 == 0 && (rest.empty() || rest == "=" || rest == "==");
}

std::string Encoded(const std::string& text) {
    static constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (size_t at = 0; at < text.size(); at += 3) {
        const std::string group = text.substr(at, 3);
        uint32_t bits = 0;
        for (size_t i = 0; i < 3; ++i) {
            bits = bits << 8U | (i < group.size() ? static_cast<unsigned char>(group[i]) : 0U);
        }
        for (size_t i = 0; i < 4; ++i) {
            encoded += i <= group.size() ? alphabet[bits >> (18U - 6U * i) & 0x3fU] : '=';
        }
    }
    return encoded;
}

std::string Decoded(const std::string& text) {
    std::string decoded(base64_decode_len(text.data(), text.size()), '\0');
    base64_decode(text.data(), text.size(), decoded.data(), decoded.size());
    return decoded.substr(0, decoded.find('\0'));
}

void CheckMessage(Examination& examination, const HandlerView& handler) {
    const std::string message = handler.Value("Message");
    const std::string group = handler.GroupOf("Message");
    if (message.empty()) {
        return;
    }
    if (!IsBase64(message)) {
        Finding& finding =
            examination.AtValue("HK3007", group, "Message",
                                "this is not base64, so that the mail's text becomes garbage; base64 -w0 "
                                "makes it");
        finding.fix = Encoded(message);
        return;
    }
    const std::string text = Decoded(message);
    const std::string expanded = LongestTime::Expanded(text);
    if (expanded.size() > longestBody) {
        examination.AtValue("HK3008", group, "Message",
                            "with its conversions filled in the text has up to " + std::to_string(expanded.size()) +
                                " bytes; more than 5000 are not sent");
    } else if (expanded.size() >= expansionFactor * (base64_decode_len(message.data(), message.size()) + 1) ||
               (expanded.empty() && !text.empty())) {
        examination.AtValue("HK3008", group, "Message",
                            "with its conversions filled in the text is too long, or empty: the mail has no text");
    }
}

std::vector<std::string> AddressesOf(const std::string& list, std::string_view separators) {
    std::vector<std::string> addresses(1);
    bool isQuoted = false;
    for (const char letter : list) {
        isQuoted = isQuoted != (letter == '"');
        if (separators.find(letter) != std::string_view::npos && !isQuoted) {
            addresses.emplace_back();
        } else {
            addresses.back() += letter;
        }
    }
    for (std::string& address : addresses) {
        address.erase(0, address.find_first_not_of(" \t"));
        address.erase(address.find_last_not_of(" \t") + 1);
    }
    std::erase(addresses, "");
    return addresses;
}

/** "guard@example.org" of "Guard <guard@example.org>". */
std::string WithoutName(const std::string& address) {
    const size_t open = address.rfind('<');
    return open == std::string::npos || !address.ends_with('>') ? address
                                                                : address.substr(open + 1, address.size() - open - 2);
}

bool IsRefused(const std::string& address) {
    const std::string bare = WithoutName(address);
    const bool isWhole = !bare.empty() && bare.front() != '@' && bare.back() != '@';
    return !isWhole || (bare.find(' ') != std::string::npos && bare.front() != '"');
}

void CheckAddress(Examination& examination, const HandlerView& handler, const char* key, const std::string& address,
                  bool isRefused) {
    const auto signs = std::count(address.begin(), address.end(), '@');
    if (isRefused) {
        const std::string record = "Not an address, the mail goes without it: " + address;
        examination
            .AtValue("HK3027", handler.GroupOf(key), key,
                     Quoted(address) + " is no address, and the mail goes without it")
            .foretells = AtEachEvent(handler, record.c_str());
    } else if (signs == 0) {
        examination.AtValue("HK3027", handler.GroupOf(key), key,
                            Quoted(address) + " has no \"@\": it is a user of the mail server, if there is one");
    } else if (signs > 1) {
        examination.AtValue("HK3027", handler.GroupOf(key), key, Quoted(address) + " is cut at the second \"@\"");
    }
}

void CheckRecipients(Examination& examination, const HandlerView& handler) {
    for (const std::string& address : AddressesOf(handler.Value("To"), ",;")) {
        CheckAddress(examination, handler, "To", address, IsRefused(address));
    }
}

/** There is one sender. */
void CheckSender(Examination& examination, const HandlerView& handler) {
    const std::string sender = handler.Value("From");
    if (!sender.empty()) {
        CheckAddress(examination, handler, "From", sender, AddressesOf(sender, ",").size() > 1 || IsRefused(sender));
    }
}

void CheckMail(Examination& examination, const HandlerView& handler) {
    if (AddressesOf(handler.Value("To"), ",;").empty()) {
        examination.AtValue("HK3025", handler.GroupOf("To"), "To", "without a To the mail goes to nobody");
    }
    if (handler.Value("From").empty()) {
        examination.AtValue("HK3026", handler.GroupOf("From"), "From",
                            "without a From it is up to esmtp and the server what becomes of the mail");
    }
    CheckRecipients(examination, handler);
    CheckSender(examination, handler);
    CheckMessage(examination, handler);
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
