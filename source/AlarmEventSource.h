#pragma once

#include "env/Guarded.h"
#include "env/SettingsKeys.h"
#include "kelto/interfaces/IAlarmV3Provider.h"
#include "source/EventSource.h"

#include <cstdint>
#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek {
class HalvekEnv;
}

namespace kelto::halvek::source {

/**
 * Fires an AlarmEvent at every change of one alarm input, in both directions.
 *
 * Driven by the alarm provider on a delivery thread of this source's own, where the handlers run too. It listens from
 * construction on; once stopped it stays silent.
 */
class AlarmEventSource : public EventSource {
public:
    static constexpr SettingsKeys keys{IntegerKey{.name = "Index", .absent = 0, .lowest = 0},
                                       TextKey{.name = "BankName"}};

    /**
     * Subscribes to the provider.
     *
     * @param typeName becomes the events' "eventType"
     * @throws kelto::osa::Exception if there is no environment
     */
    AlarmEventSource(const std::string& typeName, HalvekEnv* env);

    /**
     * Reads "Index", by default 0, and "BankName"; without the latter it asks the provider for the first bank that is
     * not remote. Throws kelto::osa::Exception if the provider does not answer, within 5 s a query.
     */
    void Configure(const core::IniFile::Group& group) override;
    bool IsConfigured() const override;
    /** Unsubscribes; a delivery in progress is waited for. */
    ~AlarmEventSource() override;

    void StartListening() override;
    /** Unsubscribes; a delivery in progress is waited for. */
    void StopListening() override;
    std::string ToString() const override;

private:
    using StateChangeEventArgs = interfaces::IAlarmV3Provider::StateChangeEventArgs;

    /** The alarm input whose changes count. */
    struct Watched {
        std::string bankName;
        int32_t index = 0;
    };

    void HandleStateChange(StateChangeEventArgs change);
    bool FindLocalBank(std::string& found) const;

    core::Logger& logger;
    interfaces::IAlarmV3Provider* const alarmProvider;
    const std::string typeName;
    Guarded<Watched> watched;
};

}  // namespace kelto::halvek::source
