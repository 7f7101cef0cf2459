#include "kelto/msgbus/ProviderCall.h"

#include "kelto/msgbus/BusConnection.h"
#include "kelto/osa/Exception.h"

#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstring>

namespace kelto::msgbus {

namespace {

constexpr std::chrono::seconds timeout(5);

thread_local std::unique_ptr<BusConnection> threadConnection;

BusConnection& LiveConnection(BusConnection::Clock::time_point deadline) {
    if (threadConnection != nullptr && !threadConnection->Drain()) {
        threadConnection.reset();
    }
    if (threadConnection == nullptr) {
        threadConnection = std::make_unique<BusConnection>(deadline);
    }
    return *threadConnection;
}

/** What went wrong in a call; freed with the scope. */
class BusError {
public:
    BusError() = default;
    ~BusError() { sd_bus_error_free(&error); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    sd_bus_error* Get() { return &error; }

    [[noreturn]] void Throw(int result) const {
        if (error.name == nullptr) {
            throw osa::Exception("%s", std::strerror(-result));
        }
        throw osa::Exception("%s: %s", error.name, error.message != nullptr ? error.message : "");
    }

private:
    sd_bus_error error = SD_BUS_ERROR_NULL;
};

}  // namespace

struct ProviderCall::Messages {
    BusConnection& connection;
    BusMessagePtr request;
    BusMessagePtr reply;
};

ProviderCall::SignalBlock::SignalBlock() {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : {SIGALRM, SIGHUP, SIGINT, SIGTERM}) {
        sigaddset(&blocked, signal);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &savedMask);
}

ProviderCall::SignalBlock::~SignalBlock() {
    pthread_sigmask(SIG_SETMASK, &savedMask, nullptr);
}

ProviderCall::ProviderCall(const std::string& provider, const char* method)
    : deadline(std::chrono::steady_clock::now() + timeout),
      messages(std::make_unique<Messages>(Messages{LiveConnection(deadline), nullptr, nullptr})) {
    const std::string name = "com.kelto." + provider;
    const std::string path = "/com/kelto/" + provider;
    sd_bus_message* request = nullptr;
    CheckBusResult(sd_bus_message_new_method_call(messages->connection.Get(), &request, name.c_str(), path.c_str(),
                                                  name.c_str(), method),
                   "Cannot make a call");
    messages->request.reset(request);
}

ProviderCall::~ProviderCall() = default;

ProviderCall& ProviderCall::Append(const std::string& value) {
    CheckBusResult(sd_bus_message_append(messages->request.get(), "s", value.c_str()), "Cannot make a call");
    return *this;
}

ProviderCall& ProviderCall::Append(int32_t value) {
    CheckBusResult(sd_bus_message_append(messages->request.get(), "i", value), "Cannot make a call");
    return *this;
}

ProviderCall& ProviderCall::Append(double value) {
    CheckBusResult(sd_bus_message_append(messages->request.get(), "d", value), "Cannot make a call");
    return *this;
}

ProviderCall& ProviderCall::AppendBool(bool value) {
    CheckBusResult(sd_bus_message_append(messages->request.get(), "b", static_cast<int>(value)), "Cannot make a call");
    return *this;
}

void ProviderCall::Send() {
    const auto left =
        std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
    // 0 would mean libsystemd's own time limit.
    const auto limit = static_cast<uint64_t>(std::max<int64_t>(left.count(), 1));
    BusError error;
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call(messages->connection.Get(), messages->request.get(), limit, error.Get(), &reply);
    messages->reply.reset(reply);
    if (result < 0) {
        error.Throw(result);
    }
}

bool ProviderCall::ReadBool() {
    int value = 0;
    CheckBusResult(sd_bus_message_read(messages->reply.get(), "b", &value), "Cannot read a reply");
    return value != 0;
}

int32_t ProviderCall::ReadInt() {
    int32_t value = 0;
    CheckBusResult(sd_bus_message_read(messages->reply.get(), "i", &value), "Cannot read a reply");
    return value;
}

std::vector<std::string> ProviderCall::ReadStrings() {
    sd_bus_message* const reply = messages->reply.get();
    std::vector<std::string> values;
    CheckBusResult(sd_bus_message_enter_container(reply, 'a', "s"), "Cannot read a reply");
    const char* value = nullptr;
    while (CheckBusResult(sd_bus_message_read(reply, "s", &value), "Cannot read a reply") > 0) {
        values.emplace_back(value);
    }
    CheckBusResult(sd_bus_message_exit_container(reply), "Cannot read a reply");
    return values;
}

}  // namespace kelto::msgbus
