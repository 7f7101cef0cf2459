#pragma once

#include "companions/common/Credentials.h"
#include "companions/outbox/Connection.h"
#include "companions/outbox/Courier.h"
#include "companions/outbox/Esmtprc.h"
#include "companions/outbox/HeldTargets.h"
#include "companions/outbox/Paths.h"
#include "companions/outbox/Queue.h"
#include "companions/outbox/Settings.h"
#include "companions/outbox/Targets.h"
#include "companions/outbox/TroubleNews.h"

#include <list>
#include <memory>
#include <string>
#include <vector>

namespace kelto::halvek::outbox {

/**
 * Takes items, and delivers them. One thread does it all but for the attempts, for which each target has one of its own
 * while it has something to deliver: see Courier. That thread waits for nobody.
 */
class Service {
public:
    explicit Service(Paths where);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service();

    /**
     * Works until SIGTERM, or until there has been nothing to do for a minute where the service manager would start it
     * again. The signals must be blocked.
     *
     * @return the status to end with: 0, or 78 if the configuration is wrong
     * @throws std::system_error if there is no socket, or nowhere to keep anything
     */
    int Run();

private:
    friend class Answers;

    void OpenSocket();
    void LoadSettings();
    void ApplySettings();
    void LoadEsmtprc();
    void CheckPost();
    void TellTrouble();
    void Round();
    void WaitUntil(int64_t wake);
    void TakeSignals();
    void TakeNetworkNews();
    void Accept();
    void Serve(Connection& connection);
    void TakeRequest(Connection& connection);
    void TakeSubmission(Connection& connection, const std::string& header);
    void Confirm(Connection& connection);
    void CloseLate();
    void Forget(Connection& connection);

    std::string TargetOf(const ItemHeader& header);
    void AssignTarget(Item& item);
    void StartDeliveries();
    Item* NextFor(const std::string& target);
    bool IsHeld(const std::string& target) const;
    bool MayStart(const std::string& name, const TargetEntry& target) const;
    void Start(TargetEntry& target, Item& item);
    Order OrderFor(const TargetEntry& target, const Item& item) const;
    void TakeReports();
    void Conclude(Item& item, TargetEntry& target, const Evidence& evidence);
    void Retry(Item& item, const std::string& reason);
    void RetireIdle();
    int64_t NextWake();
    bool MayLeave() const;
    void Notify() const;
    bool IsClockTrusted() const;

    const Paths paths;
    Settings settings;
    Esmtprc esmtprc{{}};
    /** What is known of the relay is of these. */
    std::optional<MailRelay> appliedMail;
    Esmtprc appliedEsmtprc{{}};
    Queue queue;
    HeldTargets held;
    Mailbox mailbox;
    Targets targets;
    TroubleNews troubleNews;
    std::vector<std::unique_ptr<Courier>> retired;
    std::list<Connection> connections;
    companion::UniqueFd listener;
    companion::UniqueFd signals;
    companion::UniqueFd network;
    bool isActivated = false;
    bool isStopping = false;
    int64_t lastBusy = 0;
    int64_t nextExpiry = 0;
    int64_t nextKeepSafe = 0;
    int64_t nextNews = 0;
};

}  // namespace kelto::halvek::outbox
