#pragma once

#include "env/HalvekEnv.h"
#include "kelto/interfaces/IMotionStateProvider.h"

#include <memory>
#include <utility>

namespace kelto::halvek {

/**
 * The motion-state client that all park sources share.
 *
 * Got on the event monitor's thread; the client may be used from any thread. It lives until the process ends.
 */
class MotionStateCommon : public HalvekEnv::IHalvekComponent {
public:
    static constexpr const char* componentId = "MotionStateCommonComponent";

    /** The one instance of an environment, made at first use. Throws kelto::osa::Exception. */
    static MotionStateCommon* GetInstance(HalvekEnv* env);

    /** Throws kelto::osa::Exception if there is no environment. */
    explicit MotionStateCommon(HalvekEnv* env);

    /** Takes a client that is there already. */
    explicit MotionStateCommon(std::unique_ptr<interfaces::IMotionStateProvider> readyClient)
        : client(std::move(readyClient)) {}
    ~MotionStateCommon() override = default;

    interfaces::IMotionStateProvider* GetClient() const { return client.get(); }

private:
    std::unique_ptr<interfaces::IMotionStateProvider> client;
};

}  // namespace kelto::halvek
