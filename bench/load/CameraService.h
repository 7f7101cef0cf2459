#pragma once

#include <systemd/sd-bus.h>

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace kelto::halvek::bench {

/**
 * The camera's end of the bus: an alarm service that raises alarms and a relay service that notes when it was
 * activated. Both belong to one connection and are served by the thread that uses this object.
 */
class CameraService {
public:
    static constexpr size_t relays = 4;

    /** Takes the names com.kelto.AlarmV3 and com.kelto.RelayV3; throws if the bus or a name is not to be had. */
    CameraService();
    CameraService(const CameraService&) = delete;
    CameraService& operator=(const CameraService&) = delete;

    /** Calls to the relay service are answered so many nanoseconds after they come; at once to begin with. */
    void SetAnswerDelay(int64_t nanoseconds) { answerDelay = nanoseconds; }

    /** Signals that input 0 of the bank "Local" is active, as the object at that path. */
    void RaiseAlarm(const std::string& path);

    /** Serves calls until a relay has been activated so often or the time has come; returns whether it has. */
    bool ServeUntilActivated(size_t relay, uint64_t count, int64_t deadline);

    /** Serves calls until the time has come. */
    void ServeUntil(int64_t time);

    /** How often the relay was activated. */
    uint64_t Activations(size_t relay) const { return activations.at(relay); }
    /** When the last activation came, before it was answered. */
    int64_t LastActivation() const { return lastActivation; }
    uint64_t Calls() const { return calls; }
    uint64_t UnansweredCalls() const { return unanswered.size(); }

private:
    struct BusUnref {
        void operator()(sd_bus* opened) const { sd_bus_flush_close_unref(opened); }
    };
    struct MessageUnref {
        void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    };
    struct Answer {
        int64_t due;
        std::unique_ptr<sd_bus_message, MessageUnref> reply;
    };

    static const sd_bus_vtable relayMethods[];
    static int OnGetConfiguration(sd_bus_message* call, void* userdata, sd_bus_error* error);
    static int OnSetConfiguration(sd_bus_message* call, void* userdata, sd_bus_error* error);
    static int OnActivate(sd_bus_message* call, void* userdata, sd_bus_error* error);

    int Reply(sd_bus_message* call, sd_bus_message* reply);
    /** Serves what has come; waits for more until the time has come at most. */
    void ServeOnce(int64_t deadline);

    std::unique_ptr<sd_bus, BusUnref> bus;
    int64_t answerDelay = 0;
    std::deque<Answer> unanswered;
    std::array<uint64_t, relays> activations{};
    int64_t lastActivation = 0;
    uint64_t calls = 0;
};

}  // namespace kelto::halvek::bench
