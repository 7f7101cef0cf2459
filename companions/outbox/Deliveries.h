#pragma once

#include "companions/outbox/Courier.h"
#include "companions/outbox/Esmtprc.h"
#include "companions/outbox/HeldTargets.h"
#include "companions/outbox/Mailbox.h"
#include "companions/outbox/Queue.h"
#include "companions/outbox/Settings.h"
#include "companions/outbox/SharedOrders.h"
#include "companions/outbox/Targets.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kelto::halvek::outbox {

/**
 * Decides which item is tried when, at which target, and what an attempt means for both. The attempts themselves are
 * couriers' work: each target has one while it has something to deliver, as long as there are enough; what goes to the
 * others is taken along by those whose servers leave them waiting. The service's thread, which never waits here.
 */
class Deliveries {
public:
    /** All of it must outlive this, and may change: see ApplySettings. @param knownHostsFile keys of SFTP servers */
    Deliveries(const Settings& current, const Esmtprc& relays, Queue& items, const HeldTargets& onHold,
               std::string knownHostsFile)
        : settings(current), esmtprc(relays), queue(items), held(onHold), knownHosts(std::move(knownHostsFile)) {}

    /** A target whose settings have changed is tried at once. */
    void ApplySettings(bool isMailChanged);
    /** Says where a new item goes. */
    void Assign(Item& item);

    /** Starts what may be started. */
    void StartAll();
    /** Takes in what has come of attempts, when Descriptor is readable. */
    void TakeReports();
    /** Closes connections that nobody needs, and forgets targets that nobody asks for. */
    void RetireIdle();
    /** Something about the network is new: who could not be had may be there now. */
    void Probe();

    /** When something may be started, by Uptime; INT64_MAX for never. */
    int64_t NextWake();
    int Descriptor() const { return mailbox.Descriptor(); }
    /** When an attempt was reported last, by Uptime. */
    int64_t LastBusy() const { return lastBusy; }
    /** Whether no thread is left. */
    bool IsResting() const { return retired.empty(); }
    bool HasTrouble() const;
    /** Whether nothing to be sent there goes, for a person's or the configuration's sake. */
    bool IsHeld(const std::string& target) const;
    /** Whether its target can be had, as far as anybody knows. */
    bool IsWell(const Item& item);

    Targets& All() { return targets; }
    const Targets& All() const { return targets; }

private:
    std::string TargetOf(const ItemHeader& header);
    Item* NextFor(const std::string& target);
    bool MayStart(const std::string& name, const TargetEntry& target) const;
    bool IsCourierLeft(const TargetEntry& target) const;
    void Start(TargetEntry& target, Item& item);
    void Hire(TargetEntry& target);
    void Share(Order order);
    void TakeBack();
    Order OrderFor(const TargetEntry& target, const Item& item) const;
    void Conclude(Item& item, TargetEntry& target, const Evidence& evidence);
    void Retry(Item& item, const std::string& reason);
    bool IsClockTrusted() const;

    // Constant after construction.
    const Settings& settings;
    const Esmtprc& esmtprc;
    Queue& queue;
    const HeldTargets& held;
    const std::string knownHosts;

    Mailbox mailbox;
    SharedOrders shared;
    Targets targets;
    std::vector<std::unique_ptr<Courier>> retired;
    int64_t lastBusy = 0;
};

}  // namespace kelto::halvek::outbox
