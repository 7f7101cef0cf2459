#pragma once

#include "env/HalvekEnv.h"
#include "kelto/interfaces/IAlarmV3Provider.h"

#include <memory>
#include <utility>

namespace kelto::halvek {

/**
 * The alarm client that all alarm sources share.
 *
 * Got on the event monitor's thread; the client may be used from any thread. It lives until the process ends.
 */
class AlarmCommon : public HalvekEnv::IHalvekComponent {
public:
    static constexpr const char* componentId = "AlarmCommonComponent";

    /** The one instance of an environment, made at first use. Throws kelto::osa::Exception. */
    static AlarmCommon* GetInstance(HalvekEnv* env);

    /** Throws kelto::osa::Exception if there is no environment. */
    explicit AlarmCommon(HalvekEnv* env);

    /** Takes a client that is there already. */
    explicit AlarmCommon(std::unique_ptr<interfaces::IAlarmV3Provider> readyClient) : client(std::move(readyClient)) {}
    ~AlarmCommon() override = default;

    interfaces::IAlarmV3Provider* GetClient() const { return client.get(); }

private:
    std::unique_ptr<interfaces::IAlarmV3Provider> client;
};

}  // namespace kelto::halvek
