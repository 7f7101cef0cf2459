#include "companions/outbox/Deliveries.h"

#include "companions/common/ClockState.h"
#include "companions/outbox/Log.h"
#include "companions/outbox/Uptime.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <system_error>
#include <utility>

namespace kelto::halvek::outbox {

using companion::ClockState;
using companion::UniqueFd;

namespace {

// In milliseconds.
constexpr int64_t uncertainDelay = int64_t{15} * 60'000;
constexpr int64_t partlyDelay = int64_t{5} * 60'000;
/** A clock before this is older than this program: 2026-01-01. */
constexpr int64_t oldestTime = 1'767'225'600'000;
/** Each has a thread, which libcurl holds up at times, see Trip; the unit allows no more, see TasksMax. */
constexpr size_t mostCouriers = 6;
/** Servers in trouble take their time: some couriers are left to those that are well. */
constexpr size_t mostProbes = 4;
/** With TLS each takes a megabyte, most of it for certificates; the unit has 64, see MemoryMax. */
constexpr long mostAttempts = 32;
constexpr const char* mailTarget = "mail";
constexpr uint16_t ftpPort = 21;
/** The server's word for a data connection that has ended before the file. */
constexpr int connectionClosed = 426;

}  // namespace

void Deliveries::ApplySettings(bool isMailChanged) {
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
    if (const auto mail = targets.find(mailTarget); mail != targets.end() && isMailChanged) {
        mail->second.state.ProbeAnyway();
    }
    for (const std::string& name : held.Targets()) {
        targets.try_emplace(name);
    }
    for (auto& [id, item] : queue.All()) {
        Assign(item);
    }
}

/**
 * A host without a target of its own is one by itself, and so is each account on it. The password that came last counts
 * for all that waits: somebody may have corrected it.
 */
std::string Deliveries::TargetOf(const ItemHeader& header) {
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

void Deliveries::Assign(Item& item) {
    item.target = TargetOf(item.file.header);
}

bool Deliveries::IsHeld(const std::string& target) const {
    return held.IsAllHeld() || held.IsHeld(target) || !settings.findings.empty();
}

bool Deliveries::MayStart(const std::string& name, const TargetEntry& target) const {
    const auto underWay = std::count_if(targets.begin(), targets.end(),
                                        [](const auto& entry) { return entry.second.underWay.has_value(); });
    return !IsHeld(name) && target.state.MayTry(Uptime()) && !target.underWay && underWay < mostAttempts;
}

bool Deliveries::IsCourierLeft(const TargetEntry& target) const {
    const auto busy = std::count_if(targets.begin(), targets.end(),
                                    [](const auto& entry) { return entry.second.courier != nullptr; });
    const size_t most = target.state.GetKind() == TargetState::Kind::Ok ? mostCouriers : mostProbes;
    return static_cast<size_t>(busy) + retired.size() < most;
}

void Deliveries::StartAll() {
    std::erase_if(retired, [](const auto& courier) { return courier->HasEnded(); });
    TakeBack();
    for (auto& [name, target] : targets) {
        if (!MayStart(name, target)) {
            continue;
        }
        if (Item* item = NextFor(name)) {
            Start(target, *item);
        }
    }
}

/** What nobody has taken along yet goes to couriers that can be had now. */
void Deliveries::TakeBack() {
    for (auto& [name, target] : targets) {
        if (!target.underWay || target.courier || !IsCourierLeft(target)) {
            continue;
        }
        std::optional<Order> order = shared.Take(target.underWay->id);
        if (!order) {
            continue;
        }
        try {
            Hire(target);
            target.courier->Deliver(*std::move(order));
        } catch (const std::system_error&) {
            Share(*std::move(order));
        }
    }
}

void Deliveries::Hire(TargetEntry& target) {
    target.courier = std::make_unique<Courier>(mailbox, shared);
}

void Deliveries::Share(Order order) {
    shared.Put(std::move(order));
    for (const auto& [name, target] : targets) {
        if (target.courier) {
            target.courier->Wake();
        }
    }
}

Item* Deliveries::NextFor(const std::string& target) {
    const int64_t now = Uptime();
    for (auto& [id, item] : queue.All()) {
        const bool isReady = item.state == Item::State::Queued || item.state == Item::State::Uncertain;
        if (isReady && item.target == target && item.notBefore <= now) {
            return &item;
        }
    }
    return nullptr;
}

void Deliveries::Start(TargetEntry& target, Item& item) {
    Order order = OrderFor(target, item);
    if (!order.file->IsOpen()) {
        queue.Finish(item.file.id, Queue::Fate::Dropped, "its file is gone");
        return;
    }
    if (!target.courier && IsCourierLeft(target)) {
        try {
            Hire(target);
        } catch (const std::system_error& failure) {
            target.state.Failed(Uptime(), "there is no thread for it: " + std::string(failure.what()));
            Log::Warning("Target " + item.target + " waits: " + target.state.Reason());
            return;
        }
    }
    ++item.attempts;
    item.state = Item::State::Sending;
    target.hasNews = false;
    target.underWay = {order.id, order.isCancelled};
    if (target.courier) {
        target.courier->Deliver(std::move(order));
    } else {
        Share(std::move(order));
    }
}

Order Deliveries::OrderFor(const TargetEntry& target, const Item& item) const {
    const ItemHeader& header = item.file.header;
    Order order;
    order.id = item.file.id;
    order.server = target.server;
    order.file = std::make_shared<UniqueFd>(queue.OpenPayload(item));
    order.offset = item.file.payloadOffset;
    order.size = item.file.payloadSize;
    order.knownHosts = knownHosts;
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

void Deliveries::TakeReports() {
    for (const Report& report : mailbox.TakeAll()) {
        lastBusy = Uptime();
        const auto target = std::find_if(targets.begin(), targets.end(),
                                         [&](const auto& entry) { return entry.second.IsAt(report.id); });
        if (target == targets.end()) {
            continue;
        }
        target->second.underWay.reset();
        if (Item* item = queue.Find(report.id)) {
            Conclude(*item, target->second, report.evidence);
        }
    }
}

void Deliveries::Retry(Item& item, const std::string& reason) {
    item.lastError = reason;
    item.state = item.wasUncertain ? Item::State::Uncertain : Item::State::Queued;
    Log::Warning(SpoolFolder::NameOf(item.file.id) + " is kept, target " + item.target + ": " + reason);
}

void Deliveries::Conclude(Item& item, TargetEntry& target, const Evidence& evidence) {
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
            if (target.hasNews) {
                target.state.Probe();
            }
            break;
        case Verdict::Kind::WaitForClock:
            target.state.AwaitClock(now, verdict.reason);
            break;
        case Verdict::Kind::Hold:
            target.state.Held(now, verdict.reason);
            break;
    }
    const bool isCutOff = evidence.hasOtherSize || (evidence.wasAllSent && evidence.reply == connectionClosed);
    if (isCutOff && target.server.scheme.starts_with("ftps") && !std::exchange(target.isCutOff, true)) {
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
void Deliveries::RetireIdle() {
    std::set<std::string> wanted;
    for (const auto& [id, item] : queue.All()) {
        wanted.insert(item.target);
    }
    for (const Target& target : settings.targets) {
        wanted.insert(target.name);
    }
    for (auto entry = targets.begin(); entry != targets.end();) {
        auto& [name, target] = *entry;
        if (target.courier && !target.underWay) {
            target.courier->Retire();
            retired.push_back(std::move(target.courier));
        }
        const bool isKept = wanted.contains(name) || held.IsHeld(name) || target.underWay ||
                            target.state.GetKind() != TargetState::Kind::Ok;
        entry = isKept ? std::next(entry) : targets.erase(entry);
    }
}

bool Deliveries::IsClockTrusted() const {
    return ClockState::IsSynced() && ClockState::Now() >= oldestTime;
}

/** Where all couriers are busy, the end of one wakes us; a thread that could not be had may be there later. */
int64_t Deliveries::NextWake() {
    int64_t wake = shared.IsEmpty() ? INT64_MAX : Uptime() + 1000;
    for (const auto& [id, item] : queue.All()) {
        const TargetEntry& target = targets[item.target];
        if (!IsHeld(item.target) && !target.underWay && item.state != Item::State::Unheard) {
            wake = std::min(wake, std::max({target.state.NextTry(), item.notBefore, Uptime() + 1000}));
        }
    }
    return wake;
}

void Deliveries::Probe() {
    for (auto& [name, target] : targets) {
        target.hasNews = target.underWay.has_value();
        target.state.Probe();
    }
}

bool Deliveries::HasTrouble() const {
    return std::any_of(targets.begin(), targets.end(),
                       [](const auto& entry) { return entry.second.state.GetKind() != TargetState::Kind::Ok; });
}

bool Deliveries::IsWell(const Item& item) {
    return settings.findings.empty() && targets[item.target].state.GetKind() == TargetState::Kind::Ok;
}

}  // namespace kelto::halvek::outbox
