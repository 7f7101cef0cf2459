#pragma once

#include "kelto/interfaces/IAlarmV3Provider.h"
#include "kelto/interfaces/IMotionStateProvider.h"
#include "tests/fakes/FakeNotificationPoint.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace kelto::test {

/**
 * The camera's services without a bus: for the length of a scope every CreateClient of the five providers hands out a
 * client that notes its calls here and answers as told. It stands before the real clients at link time.
 *
 * Clients may outlive the scope and may be used from any thread; what they answer is set before they are used.
 */
class FakeProviders {
public:
    using StateChange = interfaces::IAlarmV3Provider::StateChangeEventArgs;

    /** What GetConfiguration of a relay answers. */
    struct RelayConfiguration {
        bool result = true;
        bool polarity = false;
        int32_t mode = 0;
        int32_t onIntervalMs = 0;
        int32_t offIntervalMs = 0;
        int32_t pulseCount = 0;
    };

    /** What a client refers to. */
    struct Script {
        /** The banks of alarm inputs and of relays, and those of them that are not local. */
        std::vector<std::string> banks;
        std::set<std::string> remoteBanks;
        int32_t idleState = 1;
        RelayConfiguration relay;
        /** The preset at which the head stands. */
        std::string position;
        /** Called at each call, "RelayV3.Activate(Local,1,3)", before it is answered; what it throws is the answer. */
        std::function<void(const std::string&)> onCall;
        /** Called by each CreateClient, with the provider's name; what it throws comes out. */
        std::function<void(const std::string&)> onCreate;

        FakeNotificationPoint<StateChange> stateChange;
        FakeNotificationPoint<int32_t> idleChange;

        /** Notes a call. */
        void Call(const std::string& call);
        /** Notes that a client of a provider has been made for a bus. */
        void Create(const std::string& provider, msgbus::IMsgBus* bus);
        /** Notes that a client is gone. */
        void Destroy(const std::string& provider);

        mutable std::mutex mutex;
        // Guarded by mutex.
        std::vector<std::string> calls;
        std::map<std::string, int> made;
        std::map<std::string, int> destroyed;
        std::map<std::string, msgbus::IMsgBus*> buses;
    };

    FakeProviders();
    ~FakeProviders();
    FakeProviders(const FakeProviders&) = delete;
    FakeProviders& operator=(const FakeProviders&) = delete;

    Script* operator->() const { return script.get(); }

    /** All calls so far, and forgetting them. */
    std::vector<std::string> Calls() const;
    void ClearCalls();

    /** How many clients of a provider were made, how many are gone, and for which bus the last one was made. */
    int CountMade(const std::string& provider) const;
    int CountDestroyed(const std::string& provider) const;
    msgbus::IMsgBus* BusOf(const std::string& provider) const;

private:
    const std::shared_ptr<Script> script;
};

}  // namespace kelto::test
