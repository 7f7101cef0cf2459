#pragma once

#include "kelto/msgbus/MessageDelegate.h"
#include "source/EventSource.h"
#include "source/GivenUpAlerts.h"

#include <string>

namespace kelto::core {
class Logger;
}

namespace kelto::halvek {
class HalvekEnv;
}

namespace kelto::halvek::source {

/**
 * Fires an AnalyticsEvent for every analytics alert on the message bus, but for those too large for an output pipe.
 *
 * Driven by the message bus on a delivery thread of this source's own, where the handlers run too. It listens from
 * construction on; once stopped it stays silent. It has no settings.
 */
class AnalyticsEventSource : public EventSource {
public:
    /** Subscribes to the bus. Throws kelto::osa::Exception if there is no environment. */
    AnalyticsEventSource(const std::string& typeName, HalvekEnv* env);

    /** Does nothing: not even the base's part. */
    void Configure(const core::IniFile::Group& group) override;
    bool IsConfigured() const override;
    /** Unsubscribes; a delivery in progress is waited for. */
    ~AnalyticsEventSource() override = default;

    void StartListening() override;
    /** Unsubscribes, once; a delivery in progress is waited for. */
    void StopListening() override;
    std::string ToString() const override;

private:
    void HandleAlert(const msgbus::MsgBusMsg& message);

    core::Logger& logger;
    msgbus::IMsgBus* const msgBus;
    /** Told of by the delivery thread, so it goes after the subscription. */
    GivenUpAlerts givenUpAlerts;
    msgbus::MessageDelegate<AnalyticsEventSource> alertSubscription;
};

}  // namespace kelto::halvek::source
