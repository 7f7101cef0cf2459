#include "source/AnalyticsEventSource.h"

#include "env/HalvekEnv.h"
#include "event/AnalyticsEvent.h"
#include "kelto/core/Logger.h"
#include "kelto/interfaces/AnalyticsInterface.h"
#include "source/AnalyticsAlertConversion.h"

#include <optional>

namespace kelto::halvek::source {

AnalyticsEventSource::AnalyticsEventSource(const std::string&, HalvekEnv* env)
    : logger(core::Logger::GetLogger("AnalyticsEventSource")),
      msgBus(BusOf(env)),
      alertSubscription(msgBus, alertName, alertDomain, this, &AnalyticsEventSource::HandleAlert) {}

void AnalyticsEventSource::Configure(const core::IniFile::Group&) {}

bool AnalyticsEventSource::IsConfigured() const {
    return true;
}

void AnalyticsEventSource::StartListening() {
    logger.Information("AnalyticsEventSource started");
}

void AnalyticsEventSource::StopListening() {
    alertSubscription.Cancel();
    givenUpAlerts.TellRest();
    logger.Information("AnalyticsEventSource stopped");
}

std::string AnalyticsEventSource::ToString() const {
    return "EventSource{Analytics}";
}

void AnalyticsEventSource::HandleAlert(const msgbus::MsgBusMsg& message) {
    logger.Information("Received AnalyticsAlert");
    const interfaces::AnalyticsInterface::AnalyticsAlert alert(message);
    const std::optional<Event::Properties> properties = AlertToFittingProperties(alert);
    if (!properties) {
        givenUpAlerts.Add();
    }
    givenUpAlerts.Tell();
    if (!properties) {
        return;
    }
    logger.Information("send Analytics Event, for possible Handler");
    event::AnalyticsEvent event(*properties);
    FireEvent(event);
}

}  // namespace kelto::halvek::source
