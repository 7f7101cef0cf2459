#include "companions/outbox/Service.h"

#include "companions/common/ClockState.h"
#include "companions/common/DaemonSettings.h"
#include "companions/outbox/Answers.h"
#include "companions/outbox/Log.h"
#include "companions/outbox/Submission.h"
#include "companions/outbox/Uptime.h"

#include <curl/curl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <pwd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sysexits.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <set>
#include <system_error>
#include <utility>

namespace kelto::halvek::outbox {

using companion::ClockState;
using companion::Credentials;
using companion::UniqueFd;

namespace {

// In milliseconds.
constexpr int64_t requestPatience = 2'000;
constexpr int64_t confirmPatience = 1'000;
constexpr int64_t answerPatience = 10'000;
constexpr int64_t idleTime = 60'000;
constexpr int64_t uncertainDelay = 15 * 60'000;
constexpr int64_t partlyDelay = 5 * 60'000;
/** A clock before this is older than this program: 2026-01-01. */
constexpr int64_t oldestTime = 1'767'225'600'000;
/** Each has a thread; with our own they are as many as the unit allows, see TasksMax. */
constexpr size_t mostCouriers = 6;
constexpr size_t mostProbes = 4;
constexpr size_t mostConnections = 64;
constexpr const char* daemonUser = "halvek";
constexpr const char* mailTarget = "mail";
constexpr uint16_t ftpPort = 21;

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

bool MayAsk(uid_t user) {
    static const passwd* const daemon = getpwnam(daemonUser);
    return user == 0 || user == geteuid() || (daemon != nullptr && user == daemon->pw_uid);
}

Credentials OwnCredentials(const Paths& paths) {
    Credentials own = Credentials::OfThisProcess();
    return own.HasFolder() ? own : Credentials::OfFolder(paths.secrets.substr(0, paths.secrets.rfind('/')));
}

}  // namespace

Service::Service(Paths where)
    : paths(std::move(where)),
      queue(paths.ram, paths.flash, settings),
      held({paths.flash + "/held", paths.ram + "/held"}),
      troubleNews(paths.eventPipe, paths.ram + "/trouble") {}

Service::~Service() = default;

int Service::Run() {
    sigset_t wanted;
    sigemptyset(&wanted);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&wanted, signal);
    }
    signals.Reset(signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals.IsOpen()) {
        Fail("signalfd");
    }
    OpenSocket();
    LoadSettings();
    queue.Open();
    held.Load();
    troubleNews.Load(targets);
    ApplySettings();
    lastBusy = Uptime();
    sd_notify(0, "READY=1");
    while (!isStopping && !MayLeave()) {
        Round();
    }
    sd_notify(0, "STOPPING=1");
    queue.KeepAllSafe();
    return settings.findings.empty() ? EX_OK : EX_CONFIG;
}

void Service::OpenSocket() {
    network.Reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
    if (network.IsOpen() && bind(network.Get(), reinterpret_cast<const sockaddr*>(&groups), sizeof(groups)) != 0) {
        network.Reset();
    }
    if (sd_listen_fds(1) > 0) {
        listener.Reset(SD_LISTEN_FDS_START);
        isActivated = true;
        return;
    }
    listener.Reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    paths.socket.copy(address.sun_path, sizeof(address.sun_path) - 1);
    unlink(paths.socket.c_str());
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        chmod(paths.socket.c_str(), 0660) != 0 || listen(listener.Get(), SOMAXCONN) != 0) {
        Fail(paths.socket);
    }
}

void Service::LoadSettings() {
    Credentials credentials;
    std::optional<Finding> finding;
    try {
        credentials = OwnCredentials(paths);
    } catch (const std::runtime_error& failure) {
        finding = Finding{paths.secrets, paths.secrets, {1, 1}, failure.what()};
    }
    settings = Settings::Load(paths.configuration, credentials);
    if (finding) {
        settings.findings.push_back(*finding);
    }
    for (const Finding& found : settings.findings) {
        Log::Error(found.place + ": " + found.text);
    }
    if (!settings.findings.empty()) {
        Log::Error("Nothing is sent while the configuration is wrong; what comes is kept");
    }
    CheckPost();
    LoadEsmtprc();
}

/** Trouble with mails that is mailed would feed itself. */
void Service::CheckPost() {
    const std::string handler =
        settings.postsTrouble ? TroubleNews::MailingHandler(companion::DaemonSettings::Path()) : "";
    if (!handler.empty()) {
        settings.postsTrouble = false;
        Log::Error("Post: nothing is posted, since " + handler + " would mail it");
    }
}

void Service::LoadEsmtprc() {
    const char* folder = getenv("CREDENTIALS_DIRECTORY");
    const std::string handed = std::string(folder == nullptr ? "" : folder) + "/esmtprc";
    struct stat status {};
    const bool isHanded = folder != nullptr && stat(handed.c_str(), &status) == 0 && status.st_size > 0;
    esmtprc = settings.mail ? Esmtprc({}) : Esmtprc::Load(isHanded ? handed : paths.esmtprc);
    for (const std::string& warning : esmtprc.Warnings()) {
        Log::Warning(paths.esmtprc + ", " + warning);
    }
}

void Service::ApplySettings() {
    for (const Target& target : settings.targets) {
        TargetEntry& entry = targets[target.name];
        if (!(entry.server == target.server)) {
            entry.state.Succeeded();
            entry.hasRefusedRename = false;
            entry.isCutOff = false;
        }
        entry.server = target.server;
        entry.makesFolders = target.makesFolders;
        entry.renames = target.renames;
    }
    const bool isMailChanged = !(settings.mail == appliedMail && esmtprc == appliedEsmtprc);
    if (const auto mail = targets.find(mailTarget); mail != targets.end() && isMailChanged) {
        mail->second.state.ProbeAnyway();
    }
    appliedMail = settings.mail;
    appliedEsmtprc = esmtprc;
    for (const std::string& name : held.Targets()) {
        targets.try_emplace(name);
    }
    for (auto& [id, item] : queue.All()) {
        AssignTarget(item);
    }
}

/**
 * A host without a target of its own is one by itself, and so is each account on it. The password that came last counts
 * for all that waits: somebody may have corrected it.
 */
std::string Service::TargetOf(const ItemHeader& header) {
    if (header.kind == ItemHeader::Kind::Mail) {
        targets.try_emplace(mailTarget);
        return mailTarget;
    }
    if (const Target* target = settings.Find(header.host)) {
        return target->name;
    }
    const std::string port = header.port == ftpPort ? "" : ":" + std::to_string(header.port);
    std::string name = header.user + "@" + header.host + port;
    TargetEntry& entry = targets[name];
    entry.server.scheme = "ftp";
    entry.server.host = header.host;
    entry.server.port = header.port;
    entry.server.user = header.user;
    if (std::exchange(entry.server.password, header.password) != header.password) {
        entry.state.ProbeAnyway();
    }
    return name;
}

void Service::AssignTarget(Item& item) {
    item.target = TargetOf(item.file.header);
}

void Service::Round() {
    nextExpiry = queue.ExpireOld();
    nextKeepSafe = queue.KeepNext();
    StartDeliveries();
    RetireIdle();
    TellTrouble();
    Notify();
    WaitUntil(NextWake());
}

void Service::WaitUntil(int64_t wake) {
    std::vector<pollfd> watched = {
        {signals.Get(), POLLIN, 0},
        {mailbox.Descriptor(), POLLIN, 0},
        {connections.size() < mostConnections ? listener.Get() : -1, POLLIN, 0},
        {network.Get(), POLLIN, 0},
    };
    const size_t own = watched.size();
    for (const Connection& connection : connections) {
        watched.push_back({connection.Descriptor(), static_cast<short>(connection.HasUnsent() ? POLLOUT : POLLIN), 0});
    }
    const int64_t left = wake == INT64_MAX ? -1 : std::clamp<int64_t>(wake - Uptime(), 0, 24 * 3'600'000);
    if (poll(watched.data(), watched.size(), static_cast<int>(left)) > 0) {
        size_t place = own;
        for (auto connection = connections.begin(); connection != connections.end(); ++place) {
            auto next = std::next(connection);
            if (watched[place].revents != 0) {
                Serve(*connection);
            }
            connection = next;
        }
        if (watched[0].revents != 0) {
            TakeSignals();
        }
        if (watched[1].revents != 0) {
            TakeReports();
        }
        if (watched[2].revents != 0) {
            Accept();
        }
        if (watched[3].revents != 0) {
            TakeNetworkNews();
        }
    }
    CloseLate();
}

void Service::TakeSignals() {
    signalfd_siginfo signal{};
    while (read(signals.Get(), &signal, sizeof(signal)) == sizeof(signal)) {
        if (signal.ssi_signo == SIGHUP) {
            LoadSettings();
            ApplySettings();
            queue.Trim();
        } else {
            isStopping = true;
        }
    }
}

/** An address or a route is new: who could not be had may be there now. */
void Service::TakeNetworkNews() {
    alignas(nlmsghdr) std::array<char, 8192> news{};
    bool isNew = false;
    ssize_t length = 0;
    while ((length = recv(network.Get(), news.data(), news.size(), MSG_DONTWAIT)) > 0 || errno == ENOBUFS) {
        // More has come than there was room for: nobody knows what.
        isNew = isNew || length < 0;
        const auto* message = reinterpret_cast<const nlmsghdr*>(news.data());
        for (auto left = static_cast<unsigned>(std::max<ssize_t>(length, 0)); NLMSG_OK(message, left);
             message = NLMSG_NEXT(message, left)) {
            isNew = isNew || message->nlmsg_type == RTM_NEWADDR || message->nlmsg_type == RTM_NEWROUTE;
        }
    }
    if (!isNew) {
        return;
    }
    for (auto& [name, target] : targets) {
        target.state.Probe();
    }
}

void Service::Accept() {
    UniqueFd accepted(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!accepted.IsOpen()) {
        return;
    }
    lastBusy = Uptime();
    connections.emplace_back(std::move(accepted)).deadline = lastBusy + requestPatience;
    Serve(connections.back());
}

void Service::Serve(Connection& connection) {
    if (connection.HasUnsent()) {
        if (!connection.Flush() || (!connection.HasUnsent() && connection.closesWhenSent)) {
            Forget(connection);
        }
        return;
    }
    if (connection.unheardItem != 0) {
        Confirm(connection);
        return;
    }
    const bool isThere = connection.Receive();
    if (connection.HasRequest()) {
        TakeRequest(connection);
    } else if (!isThere) {
        Forget(connection);
    }
}

void Service::TakeRequest(Connection& connection) {
    const std::string text = connection.Text();
    connection.ClearText();
    connection.deadline = Uptime() + answerPatience;
    const std::optional<FieldText::Fields> fields = FieldText::Parse(text);
    connection.closesWhenSent = true;
    if (!MayAsk(connection.Peer())) {
        connection.Answer("refused: user " + std::to_string(connection.Peer()) + " may not ask\n");
    } else if (!fields || fields->empty() || fields->front().first != "verb") {
        connection.Answer("refused: this is no request\n");
    } else if (fields->front().second == Submission::verb) {
        TakeSubmission(connection, text.substr(text.find('\n') + 1));
        return;
    } else {
        connection.Answer(Answers(*this).Make(*fields));
    }
    if (!connection.HasUnsent()) {
        Forget(connection);
    }
}

void Service::TakeSubmission(Connection& connection, const std::string& header) {
    std::optional<ItemHeader> read = ItemHeader::Decode(header);
    struct stat status {};
    std::string answer = "refused: this is no submission\n";
    if (read && fstat(connection.Attached(), &status) == 0 && S_ISREG(status.st_mode)) {
        if (settings.Find(read->host) != nullptr) {
            // The target has an account of its own.
            read->password.clear();
        }
        try {
            Item& item = queue.Accept(*read, connection.Attached(), static_cast<uint64_t>(status.st_size));
            AssignTarget(item);
            connection.unheardItem = item.file.id;
            connection.closesWhenSent = false;
            connection.deadline = Uptime() + confirmPatience;
            connection.CloseAttached();
            connection.Answer(std::string(Submission::queued) + SpoolFolder::NameOf(item.file.id) + "\n");
            return;
        } catch (const QueueFull& full) {
            answer = std::string(Submission::full) + full.what() + "\n";
        } catch (const std::system_error& failure) {
            Log::Error("An item could not be taken: " + std::string(failure.what()));
            answer = "refused: " + std::string(failure.what()) + "\n";
        }
    }
    connection.Answer(answer);
    Forget(connection);
}

/**
 * It counts from now on. What he has said is taken in only behind that: if we end in between, the kernel tells him that
 * nobody has listened, and he delivers it otherwise. So it is never lost, and twice there only if we end just here.
 */
void Service::Confirm(Connection& connection) {
    Item* item = queue.Find(connection.unheardItem);
    if (connection.Peek() == Submission::heard && item != nullptr) {
        try {
            queue.Confirm(*item);
        } catch (const std::system_error& failure) {
            Log::Error("An item could not be taken: " + std::string(failure.what()));
            connection.Answer(std::string(Submission::forgotten) + "\n");
            Forget(connection);
            return;
        }
        connection.Receive();
        connection.unheardItem = 0;
        if (!settings.findings.empty() || targets[item->target].state.GetKind() != TargetState::Kind::Ok) {
            queue.KeepSafe(*item);
        }
    }
    Forget(connection);
}

void Service::Forget(Connection& connection) {
    if (connection.unheardItem != 0) {
        queue.Forget(connection.unheardItem);
    }
    lastBusy = Uptime();
    connections.remove_if([&](const Connection& other) { return &other == &connection; });
}

void Service::CloseLate() {
    const int64_t now = Uptime();
    for (auto connection = connections.begin(); connection != connections.end();) {
        Connection& late = *connection++;
        if (late.deadline > now) {
            continue;
        }
        if (late.unheardItem != 0) {
            // He may just be about to say it: he must hear that it is too late.
            queue.Forget(std::exchange(late.unheardItem, 0));
            late.Answer(std::string(Submission::forgotten) + "\n");
        }
        Forget(late);
    }
}

Item* Service::NextFor(const std::string& target) {
    const int64_t now = Uptime();
    for (auto& [id, item] : queue.All()) {
        const bool isReady = item.state == Item::State::Queued || item.state == Item::State::Uncertain;
        if (isReady && item.target == target && item.notBefore <= now) {
            return &item;
        }
    }
    return nullptr;
}

bool Service::IsHeld(const std::string& target) const {
    return held.IsAllHeld() || held.IsHeld(target) || !settings.findings.empty();
}

/** Servers in trouble take their time: some couriers are left to those that are well. */
bool Service::MayStart(const std::string& name, const TargetEntry& target) const {
    if (IsHeld(name) || !target.state.MayTry(Uptime())) {
        return false;
    }
    if (target.courier) {
        return !target.courier->Current();
    }
    const auto busy = std::count_if(targets.begin(), targets.end(),
                                    [](const auto& entry) { return entry.second.courier != nullptr; });
    const size_t most = target.state.GetKind() == TargetState::Kind::Ok ? mostCouriers : mostProbes;
    return static_cast<size_t>(busy) + retired.size() < most;
}

void Service::StartDeliveries() {
    for (auto& [name, target] : targets) {
        if (!MayStart(name, target)) {
            continue;
        }
        if (Item* item = NextFor(name)) {
            Start(target, *item);
        }
    }
}

void Service::Start(TargetEntry& target, Item& item) {
    Order order = OrderFor(target, item);
    if (!order.file->IsOpen()) {
        queue.Finish(item.file.id, Queue::Fate::Dropped, "its file is gone");
        return;
    }
    if (!target.courier) {
        target.courier = std::make_unique<Courier>(mailbox);
    }
    ++item.attempts;
    item.state = Item::State::Sending;
    target.courier->Deliver(std::move(order));
}

Order Service::OrderFor(const TargetEntry& target, const Item& item) const {
    const ItemHeader& header = item.file.header;
    Order order;
    order.id = item.file.id;
    order.server = target.server;
    order.file = std::make_shared<UniqueFd>(queue.OpenPayload(item));
    order.offset = item.file.payloadOffset;
    order.size = item.file.payloadSize;
    order.knownHosts = paths.knownHosts;
    order.isClockTrusted = IsClockTrusted();
    if (!item.IsMail()) {
        order.remote = header.remote;
        order.makesFolders = target.makesFolders;
        order.renames = target.renames && !target.hasRefusedRename;
        // One from before a restart too.
        order.mayHaveLeftPart = target.renames;
        order.server.isTls12 = target.server.isTls12 || target.isCutOff;
        if (order.server.user.empty()) {
            order.server.user = header.user;
        }
        return order;
    }
    order.server = settings.mail ? settings.mail->server : esmtprc.ServerFor(header.sender);
    order.sender = settings.mail && !settings.mail->sender.empty() ? settings.mail->sender : header.sender;
    std::copy_if(header.recipients.begin(), header.recipients.end(), std::back_inserter(order.recipients),
                 [&](const auto& recipient) { return !item.settledRecipients.contains(recipient); });
    return order;
}

void Service::TakeReports() {
    for (const Report& report : mailbox.TakeAll()) {
        lastBusy = Uptime();
        const auto target = std::find_if(targets.begin(), targets.end(), [&](const auto& entry) {
            return entry.second.courier && entry.second.courier->Current() == report.id;
        });
        if (target == targets.end()) {
            continue;
        }
        target->second.courier->Done();
        if (Item* item = queue.Find(report.id)) {
            Conclude(*item, target->second, report.evidence);
        }
    }
}

void Service::Retry(Item& item, const std::string& reason) {
    item.lastError = reason;
    item.state = item.wasUncertain ? Item::State::Uncertain : Item::State::Queued;
    Log::Warning(SpoolFolder::NameOf(item.file.id) + " is kept, target " + item.target + ": " + reason);
}

void Service::Conclude(Item& item, TargetEntry& target, const Evidence& evidence) {
    const int64_t now = Uptime();
    const Verdict verdict = evidence.Judge();
    const uint64_t id = item.file.id;
    switch (verdict.kind) {
        case Verdict::Kind::Delivered:
            target.state.Succeeded();
            queue.Finish(id, Queue::Fate::Delivered, verdict.reason);
            return;
        case Verdict::Kind::Fail:
            target.state.Succeeded();
            queue.Finish(id, item.wasUncertain ? Queue::Fate::Uncertain : Queue::Fate::Failed, verdict.reason);
            return;
        case Verdict::Kind::Uncertain:
            if (item.wasUncertain) {
                queue.Finish(id, Queue::Fate::Uncertain, verdict.reason);
                return;
            }
            item.wasUncertain = true;
            item.notBefore = now + uncertainDelay;
            queue.Remember(item);
            break;
        case Verdict::Kind::Partly:
            for (const Evidence::RecipientAnswer& answer : evidence.recipients) {
                if (answer.code < 400 || answer.code >= 500) {
                    item.settledRecipients.insert(answer.recipient);
                }
            }
            item.notBefore = now + partlyDelay;
            queue.Remember(item);
            break;
        case Verdict::Kind::WithoutRename:
            target.hasRefusedRename = true;
            Retry(item, verdict.reason);
            return;
        case Verdict::Kind::Wait:
            target.state.Failed(now, verdict.reason);
            break;
        case Verdict::Kind::WaitForClock:
            target.state.AwaitClock(now, verdict.reason);
            break;
        case Verdict::Kind::Hold:
            target.state.Held(now, verdict.reason);
            break;
    }
    if (evidence.hasOtherSize && target.server.scheme.starts_with("ftps") && !std::exchange(target.isCutOff, true)) {
        Log::Warning("An upload to " + item.target + " was cut off: it gets no newer TLS than 1.2 from now on");
    }
    Retry(item, verdict.reason);
    const std::string name = item.target;
    for (auto& [other, waiting] : queue.All()) {
        if (waiting.file.id == id || (waiting.target == name && target.state.GetKind() != TargetState::Kind::Ok)) {
            queue.KeepSafe(waiting);
        }
    }
}

/** A connection that nobody needs any more is closed, on its own thread: some servers take their time. */
void Service::RetireIdle() {
    std::set<std::string> wanted;
    for (const auto& [id, item] : queue.All()) {
        wanted.insert(item.target);
    }
    for (const Target& target : settings.targets) {
        wanted.insert(target.name);
    }
    for (auto entry = targets.begin(); entry != targets.end();) {
        auto& [name, target] = *entry;
        if (target.courier && !target.courier->Current()) {
            target.courier->Retire();
            retired.push_back(std::move(target.courier));
        }
        const bool isKept = wanted.contains(name) || held.IsHeld(name) || target.courier ||
                            target.state.GetKind() != TargetState::Kind::Ok;
        entry = isKept ? std::next(entry) : targets.erase(entry);
    }
    std::erase_if(retired, [](const auto& courier) { return courier->HasEnded(); });
}

int64_t Service::NextWake() {
    int64_t wake = std::min({nextExpiry, nextKeepSafe, nextNews});
    for (const Connection& connection : connections) {
        wake = std::min(wake, connection.deadline);
    }
    for (const auto& [id, item] : queue.All()) {
        const TargetEntry& target = targets[item.target];
        if (!IsHeld(item.target) && !target.courier && item.state != Item::State::Unheard) {
            // Where all couriers are busy, the end of one wakes us.
            wake = std::min(wake, std::max({target.state.NextTry(), item.notBefore, Uptime() + 1000}));
        }
    }
    if (isActivated && queue.All().empty()) {
        wake = std::min(wake, lastBusy + idleTime);
    }
    return wake;
}

bool Service::MayLeave() const {
    return isActivated && queue.All().empty() && connections.empty() && retired.empty() &&
           Uptime() - lastBusy >= idleTime;
}

void Service::TellTrouble() {
    nextNews = settings.postsTrouble ? troubleNews.Tell(targets, Uptime()) : INT64_MAX;
}

void Service::Notify() const {
    const auto troubled = std::count_if(targets.begin(), targets.end(), [](const auto& entry) {
        return entry.second.state.GetKind() != TargetState::Kind::Ok;
    });
    sd_notifyf(0, "STATUS=%zu waiting, %llu delivered%s", queue.Waiting(),
               static_cast<unsigned long long>(queue.GetCounts().delivered),
               !settings.findings.empty() ? ", the configuration is wrong"
               : held.IsAllHeld()         ? ", held"
               : troubled > 0             ? ", a target is in trouble"
                                          : "");
}

bool Service::IsClockTrusted() const {
    return ClockState::IsSynced() && ClockState::Now() >= oldestTime;
}

}  // namespace kelto::halvek::outbox
