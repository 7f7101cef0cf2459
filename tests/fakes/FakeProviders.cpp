#include "tests/fakes/FakeProviders.h"

#include "kelto/interfaces/IPresetsV2Provider.h"
#include "kelto/interfaces/IRelayV3Provider.h"
#include "kelto/interfaces/ITourProvider.h"

#include <sstream>
#include <stdexcept>

namespace kelto::test {

namespace {

std::shared_ptr<FakeProviders::Script> present;

/** "<provider>.<method>(<argument>,<argument>)", bools as 0 and 1. */
template <typename... Arguments>
std::string CallText(const std::string& provider, const char* method, const Arguments&... arguments) {
    std::ostringstream text;
    text << provider << "." << method << "(";
    [[maybe_unused]] const char* separator = "";
    ((text << separator << arguments, separator = ","), ...);
    text << ")";
    return text.str();
}

/** What all clients have in common: a name, and the script that they follow. */
template <typename Interface>
class FakeClient : public Interface {
public:
    FakeClient(const char* providerName, msgbus::IMsgBus* bus) : provider(providerName), script(present) {
        if (script == nullptr) {
            throw std::logic_error("no fake providers");
        }
        script->Create(provider, bus);
    }
    ~FakeClient() override { script->Destroy(provider); }

protected:
    template <typename... Arguments>
    FakeProviders::Script& Call(const char* method, const Arguments&... arguments) {
        script->Call(CallText(provider, method, arguments...));
        return *script;
    }

    FakeProviders::Script& Script() { return *script; }

private:
    const std::string provider;
    const std::shared_ptr<FakeProviders::Script> script;
};

class FakeAlarm : public FakeClient<interfaces::IAlarmV3Provider> {
public:
    using FakeClient::FakeClient;
    std::vector<std::string> GetBankNames() override { return Call("GetBankNames").banks; }
    bool IsRemote(const std::string& bank) override { return Call("IsRemote", bank).remoteBanks.count(bank) != 0; }
    interfaces::INotificationPoint<StateChangeEventArgs>& OnStateChange() override { return Script().stateChange; }
};

class FakeMotionState : public FakeClient<interfaces::IMotionStateProvider> {
public:
    using FakeClient::FakeClient;
    int32_t GetIdleState() override { return Call("GetIdleState").idleState; }
    interfaces::INotificationPoint<int32_t>& OnIdleChange() override { return Script().idleChange; }
};

class FakeRelay : public FakeClient<interfaces::IRelayV3Provider> {
public:
    using FakeClient::FakeClient;
    std::vector<std::string> GetBankNames() override { return Call("GetBankNames").banks; }
    bool IsRemote(const std::string& bank) override { return Call("IsRemote", bank).remoteBanks.count(bank) != 0; }
    bool GetConfiguration(const std::string& bank, int32_t index, bool& polarity, int32_t& mode, int32_t& onIntervalMs,
                          int32_t& offIntervalMs, int32_t& pulseCount) override {
        const FakeProviders::RelayConfiguration& relay = Call("GetConfiguration", bank, index).relay;
        polarity = relay.polarity;
        mode = relay.mode;
        onIntervalMs = relay.onIntervalMs;
        offIntervalMs = relay.offIntervalMs;
        pulseCount = relay.pulseCount;
        return relay.result;
    }
    bool SetConfiguration(const std::string& bank, int32_t index, bool polarity, int32_t mode, int32_t onIntervalMs,
                          int32_t offIntervalMs, int32_t pulseCount) override {
        return Call("SetConfiguration", bank, index, polarity, mode, onIntervalMs, offIntervalMs, pulseCount)
            .relay.result;
    }
    bool Activate(const std::string& bank, int32_t index, int32_t mode) override {
        return Call("Activate", bank, index, mode).relay.result;
    }
};

class FakePresets : public FakeClient<interfaces::IPresetsV2Provider> {
public:
    using FakeClient::FakeClient;
    void GoTo(const std::string& id, double speed, int32_t level) override { Call("GoTo", id, speed, level); }
    bool IsAt(const std::string& id) override { return Call("IsAt", id).position == id; }
};

class FakeTour : public FakeClient<interfaces::ITourProvider> {
public:
    using FakeClient::FakeClient;
    void Start(const std::string& id, int32_t level) override { Call("Start", id, level); }
};

int Find(const std::map<std::string, int>& counts, const std::string& provider) {
    const auto found = counts.find(provider);
    return found == counts.end() ? 0 : found->second;
}

}  // namespace

void FakeProviders::Script::Call(const std::string& call) {
    {
        const std::lock_guard guard(mutex);
        calls.push_back(call);
    }
    if (onCall) {
        onCall(call);
    }
}

void FakeProviders::Script::Create(const std::string& provider, msgbus::IMsgBus* bus) {
    if (onCreate) {
        onCreate(provider);
    }
    const std::lock_guard guard(mutex);
    ++made[provider];
    buses[provider] = bus;
}

void FakeProviders::Script::Destroy(const std::string& provider) {
    const std::lock_guard guard(mutex);
    ++destroyed[provider];
}

FakeProviders::FakeProviders() : script(std::make_shared<Script>()) {
    present = script;
}

FakeProviders::~FakeProviders() {
    present.reset();
}

std::vector<std::string> FakeProviders::Calls() const {
    const std::lock_guard guard(script->mutex);
    return script->calls;
}

void FakeProviders::ClearCalls() {
    const std::lock_guard guard(script->mutex);
    script->calls.clear();
}

int FakeProviders::CountMade(const std::string& provider) const {
    const std::lock_guard guard(script->mutex);
    return Find(script->made, provider);
}

int FakeProviders::CountDestroyed(const std::string& provider) const {
    const std::lock_guard guard(script->mutex);
    return Find(script->destroyed, provider);
}

msgbus::IMsgBus* FakeProviders::BusOf(const std::string& provider) const {
    const std::lock_guard guard(script->mutex);
    const auto found = script->buses.find(provider);
    return found == script->buses.end() ? nullptr : found->second;
}

}  // namespace kelto::test

namespace kelto::interfaces {

std::unique_ptr<IAlarmV3Provider> IAlarmV3Provider::CreateClient(msgbus::IMsgBus* bus) {
    return std::make_unique<test::FakeAlarm>("AlarmV3", bus);
}

std::unique_ptr<IMotionStateProvider> IMotionStateProvider::CreateClient(msgbus::IMsgBus* bus) {
    return std::make_unique<test::FakeMotionState>("MotionState", bus);
}

std::unique_ptr<IRelayV3Provider> IRelayV3Provider::CreateClient(msgbus::IMsgBus* bus) {
    return std::make_unique<test::FakeRelay>("RelayV3", bus);
}

std::unique_ptr<IPresetsV2Provider> IPresetsV2Provider::CreateClient(msgbus::IMsgBus* bus) {
    return std::make_unique<test::FakePresets>("PresetsV2", bus);
}

std::unique_ptr<ITourProvider> ITourProvider::CreateClient(msgbus::IMsgBus* bus) {
    return std::make_unique<test::FakeTour>("Tour", bus);
}

}  // namespace kelto::interfaces
