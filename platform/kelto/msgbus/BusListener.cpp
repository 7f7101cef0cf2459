#include "kelto/msgbus/BusListener.h"

#include "kelto/core/Logger.h"
#include "kelto/msgbus/DeliveryQueue.h"
#include "kelto/msgbus/MessageReader.h"
#include "kelto/osa/Exception.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <exception>
#include <new>

namespace kelto::msgbus {

namespace {

constexpr unsigned listenerStackKiB = 1024;
constexpr std::chrono::seconds connectLimit(5);
constexpr std::chrono::seconds settleLimit(1);
constexpr std::chrono::milliseconds shortestPause(100);
constexpr std::chrono::milliseconds longestPause(5000);
constexpr std::chrono::milliseconds longestWait(60000);

core::Logger& Log() {
    return core::Logger::GetLogger("kelto.msgbus");
}

/** The time until libsystemd wants to be called again, a minute at most. */
std::chrono::milliseconds TimeUntilCall(sd_bus* bus) {
    uint64_t until = UINT64_MAX;
    if (sd_bus_get_timeout(bus, &until) < 0) {
        return longestWait;
    }
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t nowUs = static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    const uint64_t leftMs = until <= nowUs ? 0 : (until - nowUs) / 1000 + 1;
    return std::min(std::chrono::milliseconds(std::min<uint64_t>(leftMs, INT32_MAX)), longestWait);
}

}  // namespace

BusListener::BusListener(Receiver signalReceiver)
    : receiver(std::move(signalReceiver)),
      wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      thread("MsgBusListener", *this, listenerStackKiB, 0),
      pause(shortestPause) {
    if (!wakeFd.IsValid()) {
        throw osa::Exception("Cannot make an eventfd");
    }
}

BusListener::~BusListener() {
    Stop();
    thread.Join();
}

uint64_t BusListener::Start() {
    thread.Run();
    const std::lock_guard lock(mutex);
    started = true;
    return generation;
}

uint64_t BusListener::AddFilter(const MessageFilter& filter) {
    // All memory is taken before anything changes.
    std::set<MessageFilter> wanted = {filter};
    std::set<MessageFilter> added = {filter};
    uint64_t change = 0;
    {
        const std::lock_guard lock(mutex);
        filters.merge(wanted);
        if (wanted.empty()) {
            addedFilters.merge(added);
        }
        change = ++generation;
    }
    Wake();
    return change;
}

void BusListener::RemoveFilter(const MessageFilter& filter) noexcept {
    {
        const std::lock_guard lock(mutex);
        filters.erase(filter);
        ++generation;
    }
    Wake();
}

void BusListener::Stop() {
    {
        const std::lock_guard lock(mutex);
        stopping = true;
        changed.notify_all();
    }
    Wake();
}

void BusListener::Wake() const {
    const uint64_t one = 1;
    static_cast<void>(!write(wakeFd.Get(), &one, sizeof(one)));
}

void BusListener::WaitUntilSettled(uint64_t change) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, settleLimit, [&] { return !started || withoutBus || settled >= change; });
}

void BusListener::Run() {
    while (!IsStopping()) {
        if (connection != nullptr || Connect()) {
            Listen();
        } else {
            Pause();
        }
    }
    matches.clear();
    connection.reset();
}

bool BusListener::Connect() {
    // A bus that accepts and never answers must not hold up a stop.
    const auto wait = [this](sd_bus* bus, std::chrono::microseconds limit) {
        WaitForInput(bus, std::chrono::ceil<std::chrono::milliseconds>(limit));
        return !IsStopping();
    };
    try {
        connection = std::make_unique<BusConnection>(BusConnection::Clock::now() + connectLimit, wait);
    } catch (const std::exception& exception) {
        if (!IsStopping()) {
            Disconnect(exception.what());
        }
        return false;
    }
    Log().Information("Connected to the message bus");
    lossReported = false;
    pause = shortestPause;
    requested = 0;
    const std::lock_guard lock(mutex);
    withoutBus = false;
    return true;
}

void BusListener::Disconnect(const char* reason) {
    if (!lossReported) {
        Log().Warning("There is no message bus, looking for it: %s", reason);
        lossReported = true;
    }
    matches.clear();
    connection.reset();
    const std::lock_guard lock(mutex);
    withoutBus = true;
    changed.notify_all();
}

void BusListener::Listen() {
    try {
        ListenOnce();
    } catch (const std::bad_alloc& exception) {
        // What was asked for is not known any more: a new connection begins afresh, but not before there may be memory.
        Disconnect(exception.what());
        Pause();
    } catch (const std::exception& exception) {
        Disconnect(exception.what());
    }
}

/** One round: what others asked for, and one message of the bus or, if there is none, waiting for more of either. */
void BusListener::ListenOnce() {
    // In each round, so that no flood holds up a stop or a subscription.
    UpdateMatches();
    const bool busy = CheckBusResult(sd_bus_process(connection->Get(), nullptr), "The message bus is gone") > 0;
    ReportSettled();
    if (!busy) {
        WaitForInput(connection->Get(), longestWait);
    }
}

void BusListener::UpdateMatches() {
    std::set<MessageFilter> wanted;
    std::set<MessageFilter> added;
    {
        const std::lock_guard lock(mutex);
        if (requested == generation) {
            return;
        }
        requested = generation;
        wanted = filters;
        added.swap(addedFilters);
    }
    // What was refused is asked for again when it was taken back in between.
    std::erase_if(matches, [&](const auto& match) {
        return wanted.count(match.first) == 0 || (match.second.refused && added.count(match.first) != 0);
    });
    for (const MessageFilter& filter : wanted) {
        if (matches.count(filter) == 0) {
            AddMatch(filter);
        }
    }
}

void BusListener::AddMatch(const MessageFilter& filter) {
    Match& match = matches.try_emplace(filter, Match{*this, filter, nullptr}).first->second;
    sd_bus_slot* slot = nullptr;
    CheckBusResult(
        sd_bus_add_match_async(connection->Get(), &slot, filter.ToMatchRule().c_str(), OnSignal, OnMatchAdded, &match),
        "Cannot subscribe");
    match.slot.reset(slot);
}

void BusListener::ReportSettled() {
    const bool acknowledged =
        std::all_of(matches.begin(), matches.end(), [](const auto& match) { return match.second.acknowledged; });
    const std::lock_guard lock(mutex);
    if (acknowledged && settled != requested) {
        settled = requested;
        changed.notify_all();
    }
}

/** Waits for the bus, for a change that somebody asked for, or for a stop. */
void BusListener::WaitForInput(sd_bus* bus, std::chrono::milliseconds limit) {
    const int events = CheckBusResult(sd_bus_get_events(bus), "The message bus is gone");
    std::array<pollfd, 2> descriptors = {{
        {sd_bus_get_fd(bus), static_cast<short>(events), 0},
        {wakeFd.Get(), POLLIN, 0},
    }};
    const auto time = static_cast<int>(std::min(limit, TimeUntilCall(bus)).count());
    poll(descriptors.data(), descriptors.size(), time);
    if (descriptors[1].revents != 0) {
        uint64_t count = 0;
        static_cast<void>(!read(wakeFd.Get(), &count, sizeof(count)));
    }
}

bool BusListener::IsStopping() {
    const std::lock_guard lock(mutex);
    return stopping;
}

/** Between two attempts to connect; a stop ends it early. */
void BusListener::Pause() {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, pause, [this] { return stopping; });
    pause = std::min(2 * pause, longestPause);
}

int BusListener::OnMatchAdded(sd_bus_message* message, void* userdata, sd_bus_error*) {
    Match& match = *static_cast<Match*>(userdata);
    match.acknowledged = true;
    // A bus that goes away leaves the request without a reply: that is reported as the loss of the bus.
    const sd_bus_error* const error = sd_bus_message_get_error(message);
    if (error != nullptr && sd_bus_error_has_name(error, SD_BUS_ERROR_NO_REPLY) == 0) {
        match.refused = true;
        Log().Warning("The message bus refused a subscription: %s: %s", error->name, error->message);
    }
    return 1;
}

int BusListener::OnSignal(sd_bus_message* message, void* userdata, sd_bus_error*) {
    Match& match = *static_cast<Match*>(userdata);
    match.listener.Receive(match, message);
    // Others may have asked for the same signal.
    return 0;
}

void BusListener::Receive(Match& match, sd_bus_message* message) {
    if (!match.filter.sender.empty() && sd_bus_message_get_destination(message) != nullptr) {
        return;
    }
    try {
        CheckBusResult(sd_bus_message_rewind(message, 1), "Cannot read a message");
        receiver(match.filter,
                 std::make_shared<const MsgBusMsg>(MessageReader::Read(message, DeliveryQueue::mostBytes)));
    } catch (const std::exception& exception) {
        Log().Error("%s", exception.what());
    }
}

}  // namespace kelto::msgbus
