#pragma once

#include "env/HalvekEnv.h"
#include "kelto/interfaces/IAlarmV3Provider.h"

#include <memory>

namespace kelto::halvek {

/**
 * The alarm client that all alarm sources share.
 *
 * Got on the event monitor's thread; the client may be used from any thread. It lives until the process ends.
 */
class AlarmCommon : public HalvekEnv::IHalvekComponent {
public:
    /** The one instance of an environment, made at first use. Throws kelto::osa::Exception. */
    static AlarmCommon* GetInstance(HalvekEnv* env);

    /** Throws kelto::osa::Exception if there is no environment. */
    explicit AlarmCommon(HalvekEnv* env);
    ~AlarmCommon() override = default;

    interfaces::IAlarmV3Provider* GetClient() const { return client.get(); }

private:
    std::unique_ptr<interfaces::IAlarmV3Provider> client;
};

}  // namespace kelto::halvek
