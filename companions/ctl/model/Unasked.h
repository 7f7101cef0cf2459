#pragma once

#include "kelto/interfaces/IAlarmV3Provider.h"
#include "kelto/interfaces/IMotionStateProvider.h"
#include "kelto/interfaces/IRelayV3Provider.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** The bank that stands for whichever one the camera would name. */
constexpr const char* unknownBank = "(the camera's first local bank)";

/** Keeps delegates and calls the one of an object, on the calling thread. */
template <typename Argument>
class ModelNotificationPoint : public interfaces::INotificationPoint<Argument> {
public:
    void Add(std::unique_ptr<core::IVoidDelegate1<Argument>> delegate) override {
        delegates.push_back(std::move(delegate));
    }

    void Remove(const void* target) override {
        std::erase_if(delegates, [&](const auto& delegate) { return delegate->GetTarget() == target; });
    }

    /** What the delegate throws comes out. */
    void Notify(const void* target, const Argument& argument) {
        for (const auto& delegate : delegates) {
            if (delegate->GetTarget() == target) {
                delegate->Invoke(argument);
            }
        }
    }

private:
    std::vector<std::unique_ptr<core::IVoidDelegate1<Argument>>> delegates;
};

/** The camera's alarm inputs, without a camera: one bank, which stands for all that it might have. */
class UnaskedAlarms : public interfaces::IAlarmV3Provider {
public:
    std::vector<std::string> GetBankNames() override {
        wasAsked = true;
        return {unknownBank};
    }
    bool IsRemote(const std::string&) override { return false; }
    ModelNotificationPoint<StateChangeEventArgs>& OnStateChange() override { return stateChange; }

    /** Whether somebody has asked for banks since this was set to false. */
    bool wasAsked = false;

private:
    ModelNotificationPoint<StateChangeEventArgs> stateChange;
};

/** The camera's head, without a camera. */
class UnaskedHead : public interfaces::IMotionStateProvider {
public:
    int32_t GetIdleState() override { return 1; }
    interfaces::INotificationPoint<int32_t>& OnIdleChange() override { return idleChange; }

private:
    ModelNotificationPoint<int32_t> idleChange;
};

/** The camera's relays, without a camera; never driven. */
class UnaskedRelays : public interfaces::IRelayV3Provider {
public:
    /** @param asked becomes true when somebody asks for banks; must outlive this object */
    explicit UnaskedRelays(bool* asked) : wasAsked(asked) {}

    std::vector<std::string> GetBankNames() override {
        *wasAsked = true;
        return {unknownBank};
    }
    bool IsRemote(const std::string&) override { return false; }
    bool GetConfiguration(const std::string&, int32_t, bool&, int32_t&, int32_t&, int32_t&, int32_t&) override {
        return false;
    }
    bool SetConfiguration(const std::string&, int32_t, bool, int32_t, int32_t, int32_t, int32_t) override {
        return false;
    }
    bool Activate(const std::string&, int32_t, int32_t) override { return false; }

private:
    bool* const wasAsked;
};

}  // namespace kelto::halvek::ctl
