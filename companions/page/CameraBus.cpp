#include "companions/page/CameraBus.h"

#include "camera/runtime/EventLoop.h"
#include "camera/runtime/Failure.h"

#include <string_view>
#include <utility>

namespace kelto::page {

namespace {

using vcam::Check;
using vcam::EventLoop;
using vcam::Failure;

constexpr uint64_t retryInterval = 1'000'000;  // microseconds
constexpr uint64_t patience = 5'000'000;
constexpr const char* cameraName = "com.kelto.VirtualCamera";
constexpr const char* away = "The camera is away";

constexpr const char* disconnectedRule =
    "type='signal',sender='org.freedesktop.DBus.Local',path='/org/freedesktop/DBus/Local',"
    "interface='org.freedesktop.DBus.Local',member='Disconnected'";
constexpr const char* ownerRule =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',interface='org.freedesktop.DBus',"
    "member='NameOwnerChanged',arg0='com.kelto.VirtualCamera'";
constexpr const char* saidRule =
    "type='signal',sender='com.kelto.VirtualCamera',path='/com/kelto/VirtualCamera',"
    "interface='com.kelto.VirtualCamera',member='Said'";
constexpr const char* alarmRule =
    "type='signal',sender='com.kelto.AlarmV3',path='/com/kelto/AlarmV3',interface='com.kelto.AlarmV3',"
    "member='StateChanged'";

/** What the camera or the bus says to a call that it has read: everything else means that there is no camera. */
bool IsRefusal(std::string_view error) {
    return error.starts_with("com.kelto.Error.") || error == SD_BUS_ERROR_FAILED || error == SD_BUS_ERROR_INVALID_ARGS;
}

}  // namespace

struct CameraBus::Pending {
    CameraBus& owner;
    Callback callback;
    vcam::BusSlotPtr slot;
    std::list<Pending>::iterator place;
};

CameraBus::CameraBus(EventLoop& eventLoop, Listener cameraListener)
    : loop(eventLoop), listener(std::move(cameraListener)), retry(eventLoop), settling(eventLoop) {
    TryToConnect();
}

CameraBus::~CameraBus() {
    calls.clear();
}

void CameraBus::Call(const std::string& service, const std::string& method, const Arguments& arguments,
                     Callback callback) {
    if (!bus) {
        callback({.outcome = Result::Outcome::Away, .text = away, .message = nullptr});
        return;
    }
    calls.push_front({.owner = *this, .callback = std::move(callback), .slot = nullptr, .place = {}});
    Pending& pending = calls.front();
    pending.place = calls.begin();
    if (const int result = Send(service, method, arguments, pending); result < 0) {
        const Callback told = std::move(pending.callback);
        calls.erase(pending.place);
        told({.outcome = Result::Outcome::Away, .text = away, .message = nullptr});
    }
}

int CameraBus::Send(const std::string& service, const std::string& method, const Arguments& arguments,
                    Pending& pending) {
    const std::string name = "com.kelto." + service;
    const std::string path = "/com/kelto/" + service;
    sd_bus_message* made = nullptr;
    int result =
        sd_bus_message_new_method_call(bus.get(), &made, name.c_str(), path.c_str(), name.c_str(), method.c_str());
    const vcam::BusMessagePtr call(made);
    if (result >= 0) {
        // A camera that is away stays so: nobody here starts one.
        result = sd_bus_message_set_auto_start(call.get(), 0);
    }
    if (result >= 0) {
        result = arguments(call.get());
    }
    sd_bus_slot* slot = nullptr;
    if (result >= 0) {
        result = sd_bus_call_async(bus.get(), &slot, call.get(), &CameraBus::OnAnswer, &pending, patience);
    }
    pending.slot.reset(slot);
    return result;
}

int CameraBus::OnAnswer(sd_bus_message* answer, void* self, sd_bus_error*) {
    auto* const pending = static_cast<Pending*>(self);
    const Callback told = std::move(pending->callback);
    pending->owner.calls.erase(pending->place);
    const sd_bus_error* const error = sd_bus_message_get_error(answer);
    if (error == nullptr) {
        told({.outcome = Result::Outcome::Done, .text = {}, .message = answer});
        return 0;
    }
    const std::string text = error->message == nullptr ? error->name : error->message;
    if (IsRefusal(error->name)) {
        told({.outcome = Result::Outcome::Refused, .text = text, .message = nullptr});
    } else {
        told({.outcome = Result::Outcome::Away, .text = std::string(away) + ": " + text, .message = nullptr});
    }
    return 0;
}

void CameraBus::TryToConnect() {
    try {
        Connect();
    } catch (const Failure&) {
        Disconnect();
    }
}

void CameraBus::Connect() {
    sd_bus* opened = nullptr;
    Check(sd_bus_open_system_with_description(&opened, "kelto-vcam-page"), "Cannot open the system bus");
    bus.reset(opened);
    Check(sd_bus_attach_event(bus.get(), loop.Get(), SD_EVENT_PRIORITY_NORMAL), "Cannot serve the bus");
    Match(disconnectedRule, &CameraBus::OnDisconnected);
    Match(ownerRule, &CameraBus::OnOwnerChanged);
    Match(saidRule, &CameraBus::OnSaid);
    Match(alarmRule, &CameraBus::OnStateChanged);
    Check(sd_bus_call_method_async(bus.get(), nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "GetNameOwner", &CameraBus::OnOwner, this, "s", cameraName),
          "Cannot ask for the camera");
}

void CameraBus::Match(const char* rule, sd_bus_message_handler_t handler) {
    Check(sd_bus_add_match_async(bus.get(), nullptr, rule, handler, nullptr, this), "Cannot listen to the bus");
}

void CameraBus::Disconnect() {
    SetOwner("");
    Settle();
    while (!calls.empty()) {
        const Callback told = std::move(calls.front().callback);
        calls.pop_front();
        told({.outcome = Result::Outcome::Away, .text = away, .message = nullptr});
    }
    // A connection that is given up inside one of its own callbacks is still in use there: it goes when the timer runs.
    retry.StartAt(EventLoop::Now() + retryInterval, [this] {
        bus.reset();
        TryToConnect();
    });
}

int CameraBus::OnDisconnected(sd_bus_message*, void* self, sd_bus_error*) {
    static_cast<CameraBus*>(self)->Disconnect();
    return 0;
}

int CameraBus::OnOwnerChanged(sd_bus_message* message, void* self, sd_bus_error*) {
    const char* newOwner = nullptr;
    if (sd_bus_message_read(message, "sss", nullptr, nullptr, &newOwner) >= 0) {
        static_cast<CameraBus*>(self)->SetOwner(newOwner);
    }
    return 0;
}

int CameraBus::OnOwner(sd_bus_message* answer, void* self, sd_bus_error*) {
    CameraBus& camera = *static_cast<CameraBus*>(self);
    const char* newOwner = nullptr;
    if (sd_bus_message_is_method_error(answer, nullptr) == 0 && sd_bus_message_read(answer, "s", &newOwner) >= 0) {
        camera.SetOwner(newOwner);
    }
    camera.Settle();
    return 0;
}

void CameraBus::SetOwner(const std::string& newOwner) {
    if (newOwner != owner) {
        owner = newOwner;
        listener.camera(IsThere());
    }
}

void CameraBus::Settle() {
    if (!std::exchange(isSettled, true)) {
        // From the loop: whoever is told may not be made yet.
        settling.StartAt(EventLoop::Now(), listener.settled);
    }
}

bool CameraBus::IsFromCamera(sd_bus_message* message) const {
    // Matches are for broadcasts: what somebody else sends to this very connection passes them.
    const char* const sender = sd_bus_message_get_sender(message);
    return sender != nullptr && owner == sender;
}

int CameraBus::OnSaid(sd_bus_message* message, void* self, sd_bus_error*) {
    const CameraBus& camera = *static_cast<CameraBus*>(self);
    uint64_t time = 0;
    const char* line = nullptr;
    if (camera.IsFromCamera(message) && sd_bus_message_read(message, "ts", &time, &line) >= 0) {
        camera.listener.said(time, line);
    }
    return 0;
}

int CameraBus::OnStateChanged(sd_bus_message* message, void* self, sd_bus_error*) {
    const CameraBus& camera = *static_cast<CameraBus*>(self);
    const char* bank = nullptr;
    int32_t index = 0;
    int active = 0;
    if (camera.IsFromCamera(message) && sd_bus_message_read(message, "sib", &bank, &index, &active) >= 0) {
        camera.listener.alarm(bank, index, active != 0);
    }
    return 0;
}

}  // namespace kelto::page
