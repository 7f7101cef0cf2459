#include "companions/ctl/Catalogue.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>

namespace kelto::halvek::ctl {

namespace {

constexpr Severity error = Severity::Error;
constexpr Severity warning = Severity::Warning;
constexpr Severity note = Severity::Note;

constexpr const char* refused = "Error reloading, invalid configuration: %s";
constexpr const char* leftOutSource = "\tError LoadSources: %s";
constexpr const char* leftOutHandler = "Error LoadHandlers: %s";
constexpr const char* noServer = "\tError LoadServers: %s";
constexpr const char* noPipe = "Thread EventServerSource ended by an exception: Unable to open FIFO for reading";
constexpr const char* illegalRange = "FilterChain: Illegal time range setting, not filtering";
constexpr const char* notConfigured = "EventHandler: not configured";

constexpr std::array catalogue = {
    // --- the store
    CatalogueEntry{
        "HK1001", error, "malformed line",
        "A line is a group in brackets, a key and its value with \"=\" between them, a comment that begins with \"#\" "
        "or \";\", or blank. Any other line costs the whole fetch: at start there is nothing configured then, and at a "
        "reload everything stays as it was.",
        refused},
    CatalogueEntry{"HK1003", error, "key before the first group",
                   "A key belongs to the group whose header stands above it in the same file. One that stands above "
                   "all headers costs the whole fetch, as a malformed line does.",
                   refused},
    CatalogueEntry{"HK1004", error, "byte order mark",
                   "The file begins with the three bytes EF BB BF, which some editors write. The daemon takes them for "
                   "a part of the first line, which is malformed then and costs the whole fetch. Save the file as "
                   "UTF-8 without a byte order mark.",
                   refused},
    CatalogueEntry{"HK1005", note, "lines that end in CR LF",
                   "The daemon drops the carriage returns at the ends of lines, so the file is read as it looks. Other "
                   "programs may not.",
                   nullptr},
    CatalogueEntry{
        "HK1006", warning, "control character",
        "A control character, a NUL or a carriage return inside of a line among them, belongs to the name or "
        "value that it stands in. What is handed on as text of C ends at a NUL. Most of them come from a "
        "wrong line end or from a file that is no text.",
        nullptr},
    CatalogueEntry{"HK1007", warning, "bytes that are no UTF-8",
                   "The daemon hands the bytes on as they are. In a mail they are replaced, and in a path they name "
                   "another file than the one that is meant. Save the file as UTF-8.",
                   nullptr},
    CatalogueEntry{"HK1008", note, "group that comes twice in one file",
                   "The second header continues the group. That works, but it hides from readers what is in it.",
                   nullptr},
    CatalogueEntry{"HK1009", warning, "key that comes twice in its group in one file",
                   "The last value holds; what stands above it means nothing.", nullptr},
    CatalogueEntry{
        "HK1010", warning, "unknown or misplaced key or group",
        "The daemon ignores what it does not know, without a word, and so it does with a name in another case or in "
        "another group than the one it belongs to. halvek-settings(5) lists all groups and keys. A group of another "
        "program of the camera is a note only.",
        nullptr},
    CatalogueEntry{"HK1012", error, "Type in the wrong case",
                   "Types are compared to the letter: Timer, Alarm, Park, Analytics, MsgBus, System and server of "
                   "sources, Relay, Preset, Tour, Folder, Ftp, Email and Extern of handlers, Pipe of the event server.",
                   "\tUnknown EventSource: %s"},
    CatalogueEntry{"HK1013", warning, "LogLevel that is no level",
                   "The levels are Trace, Debug, Information, Warning and Error, in any case. For anything else the "
                   "default holds, Information.",
                   "%s names no log level: %s"},
    CatalogueEntry{"HK1014", note, "LogLevel of a logger that there is not",
                   "The word behind \"LogLevel.\" is the name of a logger as it stands in a record. The daemon has no "
                   "logger of this name.",
                   nullptr},
    CatalogueEntry{"HK1020", note, "key overridden by a later file",
                   "Files are read in byte order of their names, and a later one wins key by key. This value does not "
                   "hold. Files that agree on a value are in order.",
                   nullptr},
    CatalogueEntry{"HK1021", note, "file that the store ignores",
                   "Of a folder the store reads the files whose names end in .ini, in lower case, and begin with no "
                   "full stop.",
                   nullptr},
    CatalogueEntry{"HK1022", warning, "nothing for the daemon in the store",
                   "The store holds no group of the daemon's. It runs, passes analytics alerts on, and does nothing "
                   "else. Perhaps the settings are elsewhere, see --settings.",
                   nullptr},
    CatalogueEntry{"HK1023", warning, "value in quotes",
                   "There are no quotes in the store: they are a part of the value.", nullptr},
    CatalogueEntry{"HK1024", warning, "comment behind a value",
                   "A comment has a line of its own. Behind a value it is a part of the value.", nullptr},
    CatalogueEntry{"HK1090", warning, "stale suppression",
                   "The comment allows a finding that does not occur. Remove it, or it will hide a fault one day.",
                   nullptr},
    CatalogueEntry{
        "HK1091", warning, "suppression that allows nothing",
        "A finding is allowed by a comment line \"; halvekctl: allow HK4002 -- reason\" above the key or the "
        "header of the group. It needs an id that there is and a reason. A list of posted types is "
        "\"; halvekctl: posted TYPE...\".",
        nullptr},
    CatalogueEntry{"HK1099", warning, "something else that the daemon reports",
                   "The daemon's own code, run on these settings, wrote this record, and nothing above foretells it.",
                   "%s"},

    // --- sources
    CatalogueEntry{"HK2001", error, "timer that never sleeps",
                   "With Interval.sec=0 the timer fires as fast as its handlers take it, for ever.", nullptr},
    CatalogueEntry{"HK2002", warning, "timer that fires every 25 days",
                   "A negative interval, or one above 2147483 seconds, becomes some 25 days, whatever the number.",
                   nullptr},
    CatalogueEntry{"HK2003", warning, "number that cannot be read becomes the default",
                   "The value must be a decimal integer of 32 bits and nothing else: no unit, no blank, no \"+\", no "
                   "fraction. For anything else the default holds, without a word.",
                   nullptr},
    CatalogueEntry{"HK2004", error, "Index of an input that is no integer",
                   "The source is left out, and the handlers that name it listen to posted events of type Alarm "
                   "instead.",
                   leftOutSource},
    CatalogueEntry{"HK2005", warning, "dwell time below 0",
                   "A negative number of seconds counts as 136 years: the source never fires.", nullptr},
    CatalogueEntry{
        "HK2006", warning, "names that clash",
        "One name is another one followed by a character before \"/\", as #1 and #1-a. The daemon finds the first one "
        "twice: a source is made twice, and a handler acts twice on each event. Use names like #1a.",
        nullptr},
    CatalogueEntry{"HK2007", error, "source without Type", "The source is left out.", leftOutSource},
    CatalogueEntry{
        "HK2008", note, "type of source that is not built in",
        "Such a source stands for the events of that type that other processes post on the event pipe. If that is "
        "meant, list the type in a comment line \"; halvekctl: posted Doorbell\", or allow the finding above the key. "
        "The daemon warns of it at every configuration. A type that is nearly one that is built in is a Warning.",
        "\tUnknown EventSource: %s"},
    CatalogueEntry{
        "HK2009", warning, "alerts are passed on twice",
        "A source that takes all analytics alerts is always there, Applications/halvek/MsgBus. With a second "
        "one every alert goes out twice on the output pipes. Remove it, and have the handlers name the one "
        "that is always there.",
        nullptr},
    CatalogueEntry{"HK2010", note, "source without handlers",
                   "No handler names it. Its events still go out on the output pipes.", nullptr},
    CatalogueEntry{"HK2011", warning, "two readers of one event pipe",
                   "Each posted event is taken by one of the two, by chance, and so misses the handlers of the other "
                   "one. Give the second server a Path of its own.",
                   nullptr},
    CatalogueEntry{"HK2012", warning, "no event server",
                   "Without the group Applications/halvek/Server nobody can post events.", noServer},
    CatalogueEntry{"HK2013", error, "event server that there is not",
                   "The Type of Applications/halvek/Server is Pipe. With anything else, or without it, there is no "
                   "event pipe.",
                   noServer},
    CatalogueEntry{"HK2014", note, "alarm input without BankName",
                   "The daemon has to ask the camera for the first bank that is not remote. If the camera does not "
                   "answer at that moment, the source is left out until the next reload.",
                   nullptr},
    CatalogueEntry{"HK2015", warning, "Index of an input below 0", "There is no such input: no event ever comes.",
                   nullptr},
    CatalogueEntry{"HK2016", note, "source of type System",
                   "The type is retired. It stands for the posted events of that type, as an unknown one does, but "
                   "without the Warning.",
                   nullptr},
    CatalogueEntry{"HK2017", error, "path that is no event pipe's",
                   "An empty path can neither be made nor opened, so nothing can be posted. A path that does not begin "
                   "with \"/\" depends on the folder that the daemon was started in.",
                   noPipe},

    // --- handlers
    CatalogueEntry{"HK3001", error, "handler without Type", "The handler is left out.", leftOutHandler},
    CatalogueEntry{"HK3002", error, "handler without sources",
                   "The values of the group NAME/SourceIds name what triggers the handler. Without them the handler is "
                   "not made at all, and nothing says so.",
                   nullptr},
    CatalogueEntry{"HK3003", error, "SourceIds that names no source",
                   "An id is the whole name of a source's group, Events/Source#1 for instance. At one that is not "
                   "there, or has no Type, the daemon stops: what is named behind it, in byte order of the keys, is "
                   "lost too.",
                   leftOutHandler},
    CatalogueEntry{"HK3004", error, "Attachment is not true",
                   "A Folder or Ftp handler without Attachment=true is left out.", leftOutHandler},
    CatalogueEntry{"HK3005", error, "preset or tour without Id",
                   "The handler is attached but not configured: it fails each event, also for the handlers behind it, "
                   "and a timer with it ticks on without sleeping.",
                   notConfigured},
    CatalogueEntry{"HK3006", error, "DestName is empty", "Without a file name every action fails.",
                   "FolderEventHandler: Illegal file name or path"},
    CatalogueEntry{"HK3007", warning, "Message is not base64",
                   "The text of a mail is written in base64, as \"base64 -w0\" makes it. Characters outside of base64 "
                   "are skipped, and the rest becomes garbage. A word such as Doorbell is taken for base64 too.",
                   nullptr},
    CatalogueEntry{
        "HK3008", warning, "mail whose text becomes too long",
        "With its conversions filled in the text has more than 5000 bytes, so that the mail says so instead; "
        "or more than ten times what stands in the settings, so that it has no text at all. Text that "
        "expands to nothing counts as well. \"%%\" stands for \"%\".",
        nullptr},
    CatalogueEntry{"HK3009", note, "MotionDetection with a region goes elsewhere",
                   "An event [MotionDetection] with a line region=2 counts as one of type 2: a source with Type=2 gets "
                   "it, this one does not.",
                   "\tUnknown EventSource: %s"},
    CatalogueEntry{"HK3010", warning, "two handlers drive one relay",
                   "Both name the same bank and index, so that one may set up the relay anew while the other one's "
                   "pulses are under way.",
                   nullptr},
    CatalogueEntry{"HK3011", error, "value that costs the handler",
                   "What is no integer, or neither true nor false, is a fault of the handler: it is left out.",
                   leftOutHandler},
    CatalogueEntry{"HK3012", warning, "number out of range",
                   "The default holds instead, without a word; or, where the page says so, the camera refuses every "
                   "action.",
                   nullptr},
    CatalogueEntry{"HK3013", error, "relay with Index -1",
                   "It counts as not configured: each event fails for it, and for the handlers behind it.",
                   notConfigured},
    CatalogueEntry{"HK3014", note, "relay without BankName",
                   "The daemon has to ask the camera for the first bank that is not remote. If the camera does not "
                   "answer at that moment, the handler is left out until the next reload.",
                   nullptr},
    CatalogueEntry{"HK3015", warning, "SourceIds names a group that is no source",
                   "The handler listens to posted events of the type that stands in that group.", nullptr},
    CatalogueEntry{"HK3016", error, "unknown type of handler",
                   "The types are Relay, Preset, Tour, Folder, Ftp, Email and Extern. A handler of another one is left "
                   "out.",
                   "CreateHandlerByName failed for %s"},
    CatalogueEntry{"HK3017", warning, "handler that acts twice on one event",
                   "The event reaches it by two ways: a source stands twice in its SourceIds, or the whole event pipe "
                   "and one posted type, or both sources of alerts.",
                   nullptr},
    CatalogueEntry{
        "HK3018", warning, "LimitSize that is no size",
        "A size is a number of bytes up to 4294967295, or a whole number with one letter k, M, G or T behind "
        "it. Anything else means no limit, and nothing is ever deleted.",
        nullptr},
    CatalogueEntry{"HK3019", error, "no SnapshotPath",
                   "The group Video/Quickview does not say where the camera keeps its snapshot. A Folder is left out, "
                   "an Ftp uploads /tmp/snapshot/img2.jpg, and an Email goes without its attachment.",
                   leftOutHandler},
    CatalogueEntry{"HK3020", error, "folder without DestinationPath", "Without a folder every action fails.",
                   "FolderEventHandler: Illegal file name or path"},
    CatalogueEntry{"HK3021", warning, "path that is not absolute",
                   "It is looked up from the folder that the daemon was started in, which is \"/\" for the service.",
                   nullptr},
    CatalogueEntry{
        "HK3022", error, "upload without server, user or password",
        "The values stand unquoted on a command line: an empty one leaves its word out, and the words behind "
        "it shift. Every upload fails, and only ftpput says so. For an anonymous server write "
        "Username=anonymous and any password.",
        nullptr},
    CatalogueEntry{"HK3023", warning, "handler that goes on without the snapshot",
                   "The handler looked for the SnapshotPath and found none: an Ftp uploads /tmp/snapshot/img2.jpg, and "
                   "an Email goes without its attachment.",
                   "\tNo source file path found, using default"},
    CatalogueEntry{"HK3024", warning, "upload without BasePath",
                   "It goes to the root of the server, with a Warning at every configuration. Write BasePath=/ if that "
                   "is meant.",
                   "\tNo destination path found, using default"},
    CatalogueEntry{"HK3025", error, "mail without recipient", "Every mail fails, and only esmtp says so.", nullptr},
    CatalogueEntry{"HK3026", note, "mail without sender",
                   "What becomes of a mail without From is up to esmtp and the server.", nullptr},
    CatalogueEntry{
        "HK3027", warning, "what is no address",
        "The mail goes without it, with a Warning each time; or to a user of the mail server, where there is "
        "no \"@\". Addresses are separated by commas or semicolons.",
        "Not an address, the mail goes without it: %s"},
    CatalogueEntry{"HK3028", warning, "Extern handler in the settings",
                   "One that passes all events on is always there. This one passes them on a second time.", nullptr},
    CatalogueEntry{"HK3029", note, "key in both groups of a handler",
                   "What stands in the group of the type wins; the value in the handler's own group means nothing.",
                   nullptr},
    CatalogueEntry{"HK3030", error, "posted events without an event server",
                   "The handler waits for posted events, and nobody can post any: there is no event server.",
                   "Error LoadHandlers: %s needs the event server Applications/halvek/Server"},
    CatalogueEntry{"HK3031", warning, "handler of a source that is left out",
                   "Its source could not be made, so it listens to posted events of the source's type instead: whoever "
                   "may post can trigger it.",
                   nullptr},
    CatalogueEntry{
        "HK3033", note, "DestName leads elsewhere",
        "A \"/\" or \"..\" in DestName writes to another folder than the one that is named, and the limit of "
        "size does not hold there.",
        nullptr},
    CatalogueEntry{"HK3034", note, "every snapshot replaces the last one",
                   "DestName holds no conversion like %H%M%S, so that the folder never holds more than one picture.",
                   nullptr},

    // --- times and days
    CatalogueEntry{"HK4001", warning, "range that cannot be read",
                   "A range is two numbers with \"-\" between them, without blanks: 800-1730. The daemon tries "
                   "them from left to right, and one that it cannot read lets the event through, with a Warning.",
                   illegalRange},
    CatalogueEntry{"HK4002", error, "range over midnight",
                   "A range whose low bound is above its high one never matches. Write two: 2200-2400,0-600.", nullptr},
    CatalogueEntry{"HK4003", error, "days in lower case",
                   "The letters are upper case: U Sunday, M, T, W, R Thursday, F, S. In lower case no day is enabled.",
                   nullptr},
    CatalogueEntry{
        "HK4004", error, "handler that never acts",
        "No minute of any day lets an event through. The low bound of a range belongs to it and the high one "
        "does not, so that 800-800 is empty.",
        nullptr},
    CatalogueEntry{"HK4005", warning, "comma at the end",
                   "Behind it stands an empty range, which cannot be read: it lets every event through that the ranges "
                   "before it have not.",
                   illegalRange},
    CatalogueEntry{"HK4006", warning, "opening that falls into a gap of the clock",
                   "On the day on which the clock is put forward this time of day does not come: the handler opens "
                   "later on that day, or not at all.",
                   nullptr},
    CatalogueEntry{"HK4007", warning, "bound that is no time of day",
                   "A bound is hours times 100 plus minutes, from 0 to 2400. 860 is not 09:00: the range ends with the "
                   "minute 08:59.",
                   nullptr},
    CatalogueEntry{"HK4008", warning, "hours without minutes",
                   "A bound is hours times 100 plus minutes: 22-24 is from 00:22 to 00:24. Write 2200-2400.", nullptr},
    CatalogueEntry{"HK4009", warning, "characters that are no days",
                   "Only the letters U, M, T, W, R, F and S count, each by itself: Mon-Fri enables Monday and Friday.",
                   nullptr},
    CatalogueEntry{"HK4010", note, "empty times or days", "The handler acts as if the key were not there.", nullptr},
    CatalogueEntry{"HK4011", note, "range that ends at 23:59",
                   "The high bound does not belong to the range, so that events of the last minute of the day are "
                   "dropped. Write 2400.",
                   nullptr},
    CatalogueEntry{"HK4012", warning, "day that is named twice",
                   "T is Tuesday and S is Saturday, however often they stand there: Thursday is R and Sunday is U. "
                   "MTWTF is written MTWRF.",
                   nullptr},

    // --- this machine
    CatalogueEntry{"HK5001", warning, "event pipe is no pipe, or of another mode",
                   "An ordinary file under the pipe's path is read, and then an event of the last type in it fires "
                   "again and again without a pause. Those who post need the right to write and not the one to read, "
                   "mode 0620.",
                   nullptr},
    CatalogueEntry{"HK5002", error, "folder that the daemon cannot write to",
                   "The folder is missing, its mode forbids it, or it is outside of what the service's sandbox leaves "
                   "writable: /media, /tmp, /var/lib/halvek, and what a drop-in adds as ReadWritePaths.",
                   nullptr},
    CatalogueEntry{"HK5003", error, "program that is not on the daemon's PATH",
                   "Uploads need ftpput, mails esmtp, and folders with a limit du, find, xargs, ls and head.", nullptr},
    CatalogueEntry{"HK5004", warning, "snapshot that is not there",
                   "The file is missing, is no regular file, or cannot be read by the daemon's user.", nullptr},
    CatalogueEntry{"HK5005", warning, "limit that cannot be kept",
                   "The limit must hold the snapshot twice. A smaller one deletes every file of the folder and then "
                   "fails; one of 4 GiB or more deletes nothing.",
                   nullptr},
    CatalogueEntry{
        "HK5006", warning, "folder with a limit whose path is not plain",
        "A shell reads the path: blanks, quotes and shell characters break the commands that keep the limit. "
        "Use letters, digits, \".\", \"-\", \"_\" and \"/\".",
        nullptr},
    CatalogueEntry{"HK5007", warning, "BasePath is not on the camera",
                   "The folder of the server is looked up on the camera, and becomes \"/\" where it is not found. Make "
                   "an empty folder of the same path on the camera.",
                   "\tNo destination path found, using default"},
    CatalogueEntry{"HK5008", warning, "output pipe without reader",
                   "A pipe that no process has open keeps nothing. One that is open and not read fills up, and then "
                   "costs a descriptor at each event.",
                   nullptr},
    CatalogueEntry{"HK5009", warning, "ordinary file among the output pipes",
                   "It is written to from its beginning at each event; where the daemon may not open it, the pipes "
                   "behind it get nothing. Remove it.",
                   nullptr},
    CatalogueEntry{"HK5010", warning, "what the camera does not have",
                   "The camera was asked for its banks, inputs, relays, presets and tours, and this one is not among "
                   "them.",
                   nullptr},
    CatalogueEntry{"HK5011", warning, "no configuration of esmtp",
                   "esmtp reads ~/.esmtprc and then /etc/esmtprc, and knows no server without either.", nullptr},
    CatalogueEntry{"HK5012", warning, "empty folder for which du says 0",
                   "Its size counts as unknown, so that nothing is saved as long as there is a limit. Put a file into "
                   "it, or do without a limit.",
                   nullptr},
    CatalogueEntry{"HK5013", note, "output pipe whose name matches nothing",
                   "A pipe gets the events whose type is part of its path, and all events if halvek.any is. This one "
                   "gets none of what the settings know.",
                   nullptr},
    CatalogueEntry{"HK5014", warning, "snapshot too large for a mail",
                   "A snapshot of more than 16 MiB is not attached.", nullptr},
    CatalogueEntry{"HK5019", note, "what could not be found out here",
                   "The question needs another user, the service's unit or the bus.", nullptr},

    // --- security
    CatalogueEntry{"HK6001", note, "password in the settings",
                   "It stands on the command line of ftpput and goes over the network in clear text. Give the daemon a "
                   "user on the server who may do nothing but write into the one folder.",
                   nullptr},
    CatalogueEntry{"HK6002", note, "settings with a password that all may read",
                   "Take the right to read from others: chmod o-r, with the daemon's group as the file's group.",
                   nullptr},
    CatalogueEntry{"HK6003", note, "password in the log",
                   "At level Information, which is the default, the daemon logs all its settings at every "
                   "configuration. LogLevel=Warning in Applications/halvek keeps them out.",
                   nullptr},
    CatalogueEntry{
        "HK6004", note, "secret in a group that is logged",
        "All groups below Applications/halvek and Events/ are logged at every configuration, also those that "
        "mean nothing to the daemon. Settings of other programs belong elsewhere.",
        nullptr},
    CatalogueEntry{"HK6005", warning, "shell characters in the values of an upload",
                   "A shell reads them: a blank makes two words of one, and whoever may write the settings may run "
                   "commands. Use letters, digits, \".\", \"-\", \"_\" and \"/\".",
                   nullptr},
    CatalogueEntry{"HK6006", warning, "upload whose command is too long",
                   "A command of more than 255 bytes is cut, which loses the local file's name first: every upload "
                   "fails, and only ftpput says so.",
                   nullptr},

    // --- wear
    CatalogueEntry{"HK7001", warning, "few reloads left",
                   "Each configuration with an event pipe and each failed write to an output pipe costs the daemon a "
                   "descriptor. halvekctl status tells how many are left; a restart begins anew.",
                   nullptr},
    CatalogueEntry{"HK7002", note, "types that number events",
                   "The daemon remembers every event id until the next reload. A few types that differ in a number are "
                   "harmless; a number that counts up is not.",
                   nullptr},
};

constexpr std::array subjects = {"Store", "Sources", "Handlers", "Times and days", "This machine", "Security", "Wear"};

consteval bool IsAscending() {
    return std::adjacent_find(catalogue.begin(), catalogue.end(), [](const CatalogueEntry& one, const auto& next) {
               return std::string_view(one.id) >= next.id;
           }) == catalogue.end();
}
static_assert(IsAscending(), "ids stand in ascending order, each once");

}  // namespace

const char* SeverityName(Severity severity) {
    constexpr std::array names = {"note", "warning", "error"};
    return names[static_cast<size_t>(severity)];
}

std::span<const CatalogueEntry> Catalogue::Entries() {
    return catalogue;
}

const CatalogueEntry* Catalogue::Find(std::string_view id) {
    const auto found =
        std::find_if(catalogue.begin(), catalogue.end(), [&](const CatalogueEntry& entry) { return id == entry.id; });
    return found == catalogue.end() ? nullptr : &*found;
}

const CatalogueEntry& Catalogue::Get(std::string_view id) {
    const CatalogueEntry* const entry = Find(id);
    if (entry == nullptr) {
        throw std::logic_error("there is no finding " + std::string(id));
    }
    return *entry;
}

const char* Catalogue::Subject(char thousand) {
    return subjects.at(static_cast<size_t>(thousand - '1'));
}

}  // namespace kelto::halvek::ctl
