#include "source/MsgBusEventSource.h"

#include "env/HalvekEnv.h"
#include "event/MsgBusEvent.h"
#include "kelto/core/Logger.h"
#include "kelto/interfaces/AnalyticsInterface.h"
#include "source/AnalyticsAlertConversion.h"

#include <optional>

namespace kelto::halvek::source {

MsgBusEventSource::MsgBusEventSource(const std::string&, HalvekEnv* env)
    : logger(core::Logger::GetLogger("MsgBusEventSource")),
      msgBus(BusOf(env)),
      alertSubscription(msgBus, alertName, alertDomain, this, &MsgBusEventSource::HandleAlert) {}

void MsgBusEventSource::Configure(const core::IniFile::Group&) {}

bool MsgBusEventSource::IsConfigured() const {
    return true;
}

void MsgBusEventSource::StartListening() {
    logger.Information("MsgBusEventSource started");
}

void MsgBusEventSource::StopListening() {
    alertSubscription.Cancel();
    givenUpAlerts.TellRest();
    logger.Information("MsgBusEventSource stopped");
}

std::string MsgBusEventSource::ToString() const {
    return "EventSource{MsgBus}";
}

void MsgBusEventSource::HandleAlert(const msgbus::MsgBusMsg& message) {
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
    event::MsgBusEvent event(*properties);
    FireEvent(event);
}

}  // namespace kelto::halvek::source
