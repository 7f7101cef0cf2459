#pragma once

#include "kelto/msgbus/BusConnection.h"
#include "kelto/msgbus/MessageFilter.h"
#include "kelto/msgbus/MsgBusMsg.h"
#include "kelto/osa/Runnable.h"
#include "kelto/osa/Thread.h"
#include "kelto/osa/UniqueFd.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>

namespace kelto::msgbus {

/**
 * Listens to the bus on a thread of its own and hands on every signal that a filter asks for, as a plain value.
 *
 * Everything of libsystemd's stays on that thread. When the bus goes away it connects again, with pauses of up to 5 s,
 * and asks for everything anew: a new connection knows nothing of the old one's matches.
 *
 * A filter that names a sender is kept by the bus itself: it compares the sender with the owner of that name for every
 * broadcast. A signal that is addressed to this process passes no match, so it does not count for such a filter.
 */
class BusListener final : public osa::Runnable {
public:
    using Receiver = std::function<void(const MessageFilter&, const std::shared_ptr<const MsgBusMsg>&)>;

    /** @param signalReceiver called on the listening thread; must not wait */
    explicit BusListener(Receiver signalReceiver);
    ~BusListener() override;

    /** Starts listening, once; returns the number of the last change. */
    uint64_t Start();

    /** Asks for what a filter lets through, which may be asked for already; returns a number that stands for this
     * change. If it throws, nothing has changed. */
    uint64_t AddFilter(const MessageFilter& filter);

    /** Asks for it no more. */
    void RemoveFilter(const MessageFilter& filter) noexcept;

    /**
     * Waits until the bus has acknowledged a change and all before it: for a second at most, not at all before the
     * start or if there is no bus. Not from the listening thread.
     */
    void WaitUntilSettled(uint64_t change);

    void Run() override;
    void Stop() override;

private:
    /** One match on the bus. Its address is what libsystemd gives back, so it stays where it is. */
    struct Match {
        BusListener& listener;
        const MessageFilter filter;
        BusSlotPtr slot;
        bool acknowledged = false;
        bool refused = false;
    };

    static int OnSignal(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnMatchAdded(sd_bus_message* message, void* userdata, sd_bus_error* error);

    void Wake() const;
    bool Connect();
    void Listen();
    void ListenOnce();
    void UpdateMatches();
    void AddMatch(const MessageFilter& filter);
    void ReportSettled();
    void WaitForInput(sd_bus* bus, std::chrono::milliseconds limit);
    bool IsStopping();
    void Pause();
    void Disconnect(const char* reason);
    void Receive(Match& match, sd_bus_message* message);

    const Receiver receiver;
    const osa::UniqueFd wakeFd;
    osa::Thread thread;

    // The listening thread's own.
    std::unique_ptr<BusConnection> connection;
    std::map<MessageFilter, Match> matches;
    uint64_t requested = 0;
    bool lossReported = false;
    std::chrono::milliseconds pause;

    // Guarded by mutex.
    std::mutex mutex;
    std::condition_variable changed;
    std::set<MessageFilter> filters;
    std::set<MessageFilter> addedFilters;
    uint64_t generation = 1;
    uint64_t settled = 0;
    bool started = false;
    bool stopping = false;
    bool withoutBus = false;
};

}  // namespace kelto::msgbus
