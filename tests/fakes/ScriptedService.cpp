#include "tests/fakes/ScriptedService.h"

#include "tests/support/WaitUntil.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <future>

namespace kelto::test {

namespace {

struct Unref {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};

using MessagePtr = std::unique_ptr<sd_bus_message, Unref>;

void Send(sd_bus* bus, const BusSignal& signal) {
    sd_bus_message* made = nullptr;
    CheckBus(
        sd_bus_message_new_signal(bus, &made, signal.path.c_str(), signal.interface.c_str(), signal.member.c_str()),
        "make a signal");
    const MessagePtr message(made);
    AppendArguments(made, signal.arguments);
    if (signal.append) {
        signal.append(made);
    }
    if (!signal.destination.empty()) {
        CheckBus(sd_bus_message_set_destination(made, signal.destination.c_str()), "address a signal");
    }
    CheckBus(sd_bus_send(bus, made, nullptr), "send a signal");
}

/** What the bus has answered to, it has passed on all before. */
void WaitUntilPassedOn(sd_bus* bus) {
    CheckBus(sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
                                nullptr, nullptr, ""),
             "wait for the bus");
}

}  // namespace

BusSignal ProviderSignal(const std::string& provider, const std::string& member, const BusArguments& arguments) {
    return {.path = "/com/kelto/" + provider,
            .interface = "com.kelto." + provider,
            .member = member,
            .arguments = arguments};
}

BusSignal AlertSignal(const std::string& ruleName) {
    return {.path = "/com/zentu/analytics",
            .interface = "com.zentu.analytics",
            .member = "AnalyticsAlert",
            .arguments = {"camera1", "person", "LineCross", ruleName, "a rule", BusPoints{{0, 0}, {1, 0.5}},
                          BusPoints{}, "jpeg", "http://camera/a"}};
}

struct ScriptedService::Connection {
    std::unique_ptr<sd_bus, Unref> bus;
    std::list<MessagePtr> held;
};

ScriptedService::ScriptedService(const std::string& providerName)
    : provider(providerName), wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    // On the thread that goes on with it: what libsystemd makes is for one thread only.
    std::promise<void> opened;
    thread = std::thread([this, &opened] {
        try {
            Open();
            opened.set_value();
        } catch (...) {
            opened.set_exception(std::current_exception());
            return;
        }
        Run();
        connection.reset();
    });
    try {
        opened.get_future().get();
    } catch (...) {
        thread.join();
        close(wakeFd);
        throw;
    }
}

ScriptedService::~ScriptedService() {
    {
        const std::lock_guard lock(mutex);
        stopping = true;
    }
    Wake();
    thread.join();
    close(wakeFd);
}

void ScriptedService::Answer(const std::string& method, const BusArguments& values) {
    const std::lock_guard lock(mutex);
    replies[method] = {.values = values, .errorName = {}, .errorText = {}};
}

void ScriptedService::Fail(const std::string& method, const std::string& errorName, const std::string& text) {
    const std::lock_guard lock(mutex);
    replies[method] = {.values = {}, .errorName = errorName, .errorText = text};
}

void ScriptedService::Hold() {
    const std::lock_guard lock(mutex);
    holding = true;
}

void ScriptedService::Release() {
    DoOnThread([this](sd_bus*) {
        {
            const std::lock_guard lock(mutex);
            holding = false;
        }
        for (const MessagePtr& message : connection->held) {
            Answer(message.get());
        }
        connection->held.clear();
    });
}

std::vector<ScriptedService::Call> ScriptedService::Calls() const {
    const std::lock_guard lock(mutex);
    return calls;
}

bool ScriptedService::WaitForCalls(size_t count) const {
    return WaitUntil([&] { return Calls().size() >= count; });
}

void ScriptedService::Emit(const std::vector<BusSignal>& signals) {
    DoOnThread([&](sd_bus* bus) {
        for (const BusSignal& signal : signals) {
            Send(bus, signal);
        }
        WaitUntilPassedOn(bus);
    });
}

void ScriptedService::ReleaseName() {
    DoOnThread([this](sd_bus* bus) {
        CheckBus(sd_bus_release_name(bus, ("com.kelto." + provider).c_str()), "give the name away");
    });
}

void ScriptedService::RequestName() {
    DoOnThread([this](sd_bus* bus) {
        CheckBus(sd_bus_request_name(bus, ("com.kelto." + provider).c_str(), 0), "take the name");
    });
}

void ScriptedService::Open() {
    sd_bus* opened = nullptr;
    CheckBus(sd_bus_open_system(&opened), "open the bus");
    connection = std::make_unique<Connection>();
    connection->bus.reset(opened);
    if (provider.empty()) {
        WaitUntilPassedOn(opened);
        return;
    }
    const auto onCall = [](sd_bus_message* message, void* service, sd_bus_error*) {
        static_cast<ScriptedService*>(service)->TakeCall(message);
        return 1;
    };
    CheckBus(sd_bus_add_object(opened, nullptr, ("/com/kelto/" + provider).c_str(), onCall, this), "offer an object");
    CheckBus(sd_bus_request_name(opened, ("com.kelto." + provider).c_str(), 0), "take the name");
}

void ScriptedService::Run() {
    sd_bus* const bus = connection->bus.get();
    bool connected = true;
    while (true) {
        std::list<std::function<void(sd_bus*)>> todo;
        {
            const std::lock_guard lock(mutex);
            if (stopping) {
                return;
            }
            todo.swap(deeds);
        }
        for (const auto& deed : todo) {
            deed(bus);
        }
        int result = 0;
        while (connected && (result = sd_bus_process(bus, nullptr)) > 0) {
        }
        // Without the bus it only waits for its end.
        connected = connected && result >= 0;
        std::array<pollfd, 2> descriptors = {{{wakeFd, POLLIN, 0}, {-1, 0, 0}}};
        if (connected) {
            descriptors[1] = {sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0};
        }
        poll(descriptors.data(), descriptors.size(), -1);
        uint64_t count = 0;
        static_cast<void>(!read(wakeFd, &count, sizeof(count)));
    }
}

void ScriptedService::DoOnThread(const std::function<void(sd_bus*)>& deed) {
    std::promise<void> done;
    {
        const std::lock_guard lock(mutex);
        deeds.emplace_back([&](sd_bus* bus) {
            try {
                deed(bus);
                done.set_value();
            } catch (...) {
                done.set_exception(std::current_exception());
            }
        });
    }
    Wake();
    done.get_future().get();
}

void ScriptedService::Wake() const {
    const uint64_t one = 1;
    static_cast<void>(!write(wakeFd, &one, sizeof(one)));
}

void ScriptedService::TakeCall(sd_bus_message* message) {
    Note(message);
    bool hold = false;
    {
        const std::lock_guard lock(mutex);
        hold = holding;
    }
    if (hold) {
        connection->held.emplace_back(sd_bus_message_ref(message));
    } else {
        Answer(message);
    }
}

void ScriptedService::Note(sd_bus_message* message) {
    Call call{.interface = sd_bus_message_get_interface(message),
              .method = sd_bus_message_get_member(message),
              .signature = sd_bus_message_get_signature(message, 1),
              .arguments = ReadArguments(message)};
    const std::lock_guard lock(mutex);
    calls.push_back(std::move(call));
}

void ScriptedService::Answer(sd_bus_message* message) {
    Reply reply{.values = {}, .errorName = "org.freedesktop.DBus.Error.UnknownMethod", .errorText = "no answer is set"};
    {
        const std::lock_guard lock(mutex);
        const auto found = replies.find(sd_bus_message_get_member(message));
        if (found != replies.end()) {
            reply = found->second;
        }
    }
    sd_bus_message* made = nullptr;
    if (reply.errorName.empty()) {
        CheckBus(sd_bus_message_new_method_return(message, &made), "make a reply");
    } else {
        const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(reply.errorName.c_str(), reply.errorText.c_str());
        CheckBus(sd_bus_message_new_method_error(message, &made, &error), "make an error");
    }
    const MessagePtr answer(made);
    AppendArguments(made, reply.values);
    // The bus may be gone, and whoever asked with it.
    sd_bus_send(connection->bus.get(), made, nullptr);
}

}  // namespace kelto::test
