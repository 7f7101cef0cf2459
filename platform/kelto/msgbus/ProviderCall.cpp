#include "kelto/msgbus/ProviderCall.h"

#include "kelto/msgbus/BusConnection.h"
#include "kelto/msgbus/ThreadConnection.h"
#include "kelto/osa/Exception.h"

#include <systemd/sd-bus.h>

#include <cerrno>

namespace kelto::msgbus {

namespace {

constexpr std::chrono::seconds timeout(5);

/** What libsystemd makes of an errno; freed with the scope. */
class BusError {
public:
    explicit BusError(int result) { sd_bus_error_set_errno(&error, result); }
    ~BusError() { sd_bus_error_free(&error); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;

    const sd_bus_error& Get() const { return error; }

private:
    sd_bus_error error{};
};

[[noreturn]] void ThrowBusError(const sd_bus_error& error) {
    throw osa::Exception("%s: %s", error.name, error.message != nullptr ? error.message : "");
}

/** Throws a negative result of libsystemd with the name that the bus has for such an error. */
int CheckCall(int result) {
    if (result < 0) {
        const BusError error(result);
        ThrowBusError(error.Get());
    }
    return result;
}

}  // namespace

struct ProviderCall::Messages {
    static int OnReply(sd_bus_message* message, void* userdata, sd_bus_error*) {
        static_cast<Messages*>(userdata)->reply.reset(sd_bus_message_ref(message));
        return 1;
    }

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
      messages(std::make_unique<Messages>(Messages{ThreadConnection::Get(deadline), nullptr, nullptr})) {
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

/**
 * Not by sd_bus_call: that keeps all that comes before the reply, looks at no time limit while something comes, and
 * gives the connection up after 65,536 messages. Anybody may send them.
 */
void ProviderCall::Send() {
    try {
        WaitForReply();
    } catch (...) {
        // What is still to come on it, or has come half, is nobody's.
        ThreadConnection::Close();
        throw;
    }
    const sd_bus_error* const error = sd_bus_message_get_error(messages->reply.get());
    if (error != nullptr) {
        ThrowBusError(*error);
    }
}

void ProviderCall::WaitForReply() {
    sd_bus* const bus = messages->connection.Get();
    sd_bus_slot* opened = nullptr;
    CheckCall(sd_bus_call_async(bus, &opened, messages->request.get(), Messages::OnReply, messages.get(), UINT64_MAX));
    const BusSlotPtr slot(opened);
    while (messages->reply == nullptr) {
        const int progress = CheckCall(sd_bus_process(bus, nullptr));
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
        if (messages->reply == nullptr && left.count() <= 0) {
            CheckCall(-ETIMEDOUT);
        }
        if (progress == 0) {
            const int waited = sd_bus_wait(bus, static_cast<uint64_t>(left.count()));
            CheckCall(waited == -EINTR ? 0 : waited);
        }
    }
    // A connection that ends has libsystemd answer in the place of the service.
    CheckCall(sd_bus_is_open(bus) > 0 ? 0 : -ECONNRESET);
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
