#include "companions/outbox/Service.h"

#include "companions/common/DaemonSettings.h"
#include "companions/outbox/Answers.h"
#include "companions/outbox/Log.h"
#include "companions/outbox/Uptime.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace kelto::halvek::outbox {

using companion::Credentials;

namespace {

/** In milliseconds. */
constexpr int64_t idleTime = 60'000;

[[noreturn]] void Fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
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
      deliveries(settings, esmtprc, queue, held, paths.knownHosts),
      reception(settings, queue, deliveries,
                [this](const FieldText::Fields& request) {
                    return Answers(settings, queue, deliveries, held).Make(request);
                }),
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
    OpenNetwork();
    reception.Open(paths.socket);
    LoadSettings();
    queue.Open();
    held.Load();
    troubleNews.Load(deliveries.All());
    ApplySettings();
    begin = Uptime();
    sd_notify(0, "READY=1");
    while (!isStopping && !MayLeave()) {
        Round();
    }
    sd_notify(0, "STOPPING=1");
    queue.KeepAllSafe();
    return settings.findings.empty() ? EX_OK : EX_CONFIG;
}

void Service::OpenNetwork() {
    network.Reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE;
    if (network.IsOpen() && bind(network.Get(), reinterpret_cast<const sockaddr*>(&groups), sizeof(groups)) != 0) {
        network.Reset();
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
    const bool isMailChanged = !(settings.mail == appliedMail && esmtprc == appliedEsmtprc);
    appliedMail = settings.mail;
    appliedEsmtprc = esmtprc;
    deliveries.ApplySettings(isMailChanged);
}

void Service::Round() {
    if (queue.RetryFlash(Uptime())) {
        ApplySettings();
    }
    nextExpiry = queue.ExpireOld();
    nextKeepSafe = queue.KeepNext();
    deliveries.StartAll();
    deliveries.RetireIdle();
    TellTrouble();
    Notify();
    WaitUntil(NextWake());
}

void Service::WaitUntil(int64_t wake) {
    std::vector<pollfd> watched = {
        {signals.Get(), POLLIN, 0}, {deliveries.Descriptor(), POLLIN, 0}, {network.Get(), POLLIN, 0}};
    const size_t own = watched.size();
    reception.AddTo(watched);
    const int64_t left = wake == INT64_MAX ? -1 : std::clamp<int64_t>(wake - Uptime(), 0, int64_t{24} * 3'600'000);
    if (poll(watched.data(), watched.size(), static_cast<int>(left)) > 0) {
        reception.Take(watched, own);
        if (watched[0].revents != 0) {
            TakeSignals();
        }
        if (watched[1].revents != 0) {
            deliveries.TakeReports();
        }
        if (watched[2].revents != 0) {
            TakeNetworkNews();
        }
    }
    reception.CloseLate();
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

/** An address or a route is new, or a cable was plugged in: who could not be had may be there now. */
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
            const bool isLink = message->nlmsg_type == RTM_NEWLINK && IsLinkNew(*message);
            isNew = isNew || isLink || message->nlmsg_type == RTM_NEWADDR || message->nlmsg_type == RTM_NEWROUTE;
        }
    }
    if (!isNew) {
        return;
    }
    deliveries.Probe();
}

/** A link that runs keeps its addresses and routes while its cable is out. It is told for many other reasons too. */
bool Service::IsLinkNew(const nlmsghdr& message) {
    const auto& link = *static_cast<const ifinfomsg*>(NLMSG_DATA(&message));
    if ((link.ifi_flags & IFF_RUNNING) != 0) {
        return runningLinks.insert(link.ifi_index).second;
    }
    runningLinks.erase(link.ifi_index);
    return false;
}

int64_t Service::LastBusy() const {
    return std::max({begin, reception.LastBusy(), deliveries.LastBusy()});
}

int64_t Service::NextWake() {
    const int64_t wake = std::min({nextExpiry, nextKeepSafe, nextNews, reception.NextWake(), deliveries.NextWake()});
    return reception.IsActivated() && queue.All().empty() ? std::min(wake, LastBusy() + idleTime) : wake;
}

bool Service::MayLeave() const {
    return reception.IsActivated() && queue.All().empty() && reception.IsEmpty() && deliveries.IsResting() &&
           Uptime() - LastBusy() >= idleTime;
}

void Service::TellTrouble() {
    nextNews = settings.postsTrouble ? troubleNews.Tell(deliveries.All(), Uptime()) : INT64_MAX;
}

void Service::Notify() const {
    sd_notifyf(0, "STATUS=%zu waiting, %llu delivered%s", queue.Waiting(),
               static_cast<unsigned long long>(queue.GetCounts().delivered),
               !settings.findings.empty() ? ", the configuration is wrong"
               : held.IsAllHeld()         ? ", held"
               : deliveries.HasTrouble()  ? ", a target is in trouble"
                                          : "");
}

}  // namespace kelto::halvek::outbox
