#pragma once

#include "companions/common/UniqueFd.h"
#include "companions/outbox/Deliveries.h"
#include "companions/outbox/Esmtprc.h"
#include "companions/outbox/HeldTargets.h"
#include "companions/outbox/Paths.h"
#include "companions/outbox/Queue.h"
#include "companions/outbox/Reception.h"
#include "companions/outbox/Settings.h"
#include "companions/outbox/TroubleNews.h"

#include <cstdint>
#include <optional>
#include <set>

struct nlmsghdr;

namespace kelto::halvek::outbox {

/**
 * Takes items, and delivers them. One thread does it all but for the attempts, for which each target has one of its own
 * while it has something to deliver: see Courier. That thread waits for nobody. Here is its loop; see Reception for
 * those who come, and Deliveries for what becomes of what they bring.
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
    void OpenNetwork();
    void LoadSettings();
    void CheckPost();
    void LoadEsmtprc();
    void ApplySettings();
    void Round();
    void WaitUntil(int64_t wake);
    void TakeSignals();
    void TakeNetworkNews();
    bool IsLinkNew(const nlmsghdr& message);
    int64_t LastBusy() const;
    int64_t NextWake();
    bool MayLeave() const;
    void TellTrouble();
    void Notify() const;

    const Paths paths;
    Settings settings;
    Esmtprc esmtprc{{}};
    /** What is known of the relay is of these. */
    std::optional<MailRelay> appliedMail;
    Esmtprc appliedEsmtprc{{}};
    Queue queue;
    HeldTargets held;
    Deliveries deliveries;
    Reception reception;
    TroubleNews troubleNews;
    companion::UniqueFd signals;
    companion::UniqueFd network;
    /** The numbers of interfaces, as far as they were told. */
    std::set<int> runningLinks;
    bool isStopping = false;
    /** By Uptime, as all of these. */
    int64_t begin = 0;
    int64_t nextExpiry = 0;
    int64_t nextKeepSafe = 0;
    int64_t nextNews = 0;
};

}  // namespace kelto::halvek::outbox
