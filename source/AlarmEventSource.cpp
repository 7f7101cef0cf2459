#include "source/AlarmEventSource.h"

#include "env/AlarmCommon.h"
#include "env/SettingsReader.h"
#include "event/AlarmEvent.h"
#include "kelto/core/Logger.h"
#include "kelto/core/VoidObjectMethodDelegate1.h"
#include "kelto/osa/Exception.h"

#include <memory>

namespace kelto::halvek::source {

AlarmEventSource::AlarmEventSource(const std::string& sourceType, HalvekEnv* env)
    : logger(core::Logger::GetLogger("halvek")),
      alarmProvider(AlarmCommon::GetInstance(env)->GetClient()),
      typeName(sourceType) {
    using Delegate = core::VoidObjectMethodDelegate1<AlarmEventSource, StateChangeEventArgs>;
    alarmProvider->OnStateChange().Add(std::make_unique<Delegate>(this, &AlarmEventSource::HandleStateChange));
}

AlarmEventSource::~AlarmEventSource() {
    alarmProvider->OnStateChange().Remove(this);
}

void AlarmEventSource::Configure(const core::IniFile::Group& group) {
    EventSource::Configure(group);
    const SettingsReader settings(group);
    Watched input = watched.Copy();
    input.index = settings.Read(keys.Integer("Index"));
    watched.Store(input);
    std::string bankName;
    if (settings.TryRead(keys.Text("BankName"), bankName) || FindLocalBank(bankName)) {
        input.bankName = bankName;
        watched.Store(input);
    }
    logger.Information("Configured alarm %d", input.index);
}

/** The first bank that the provider does not call remote; false if there is none. */
bool AlarmEventSource::FindLocalBank(std::string& found) const {
    for (const std::string& name : alarmProvider->GetBankNames()) {
        if (!alarmProvider->IsRemote(name)) {
            found = name;
            return true;
        }
    }
    return false;
}

bool AlarmEventSource::IsConfigured() const {
    return true;
}

void AlarmEventSource::StartListening() {
    if (!IsConfigured()) {
        throw osa::Exception("AlarmEventSource::StartListening not configured");
    }
    logger.Information("AlarmEventSource started");
}

void AlarmEventSource::StopListening() {
    alarmProvider->OnStateChange().Remove(this);
    logger.Information("AlarmEventSource stopped");
}

std::string AlarmEventSource::ToString() const {
    return "EventSource{Alarm}";
}

void AlarmEventSource::HandleStateChange(StateChangeEventArgs change) {
    logger.Debug("Received state change for alarm %s:%d -> %d", change.bankName.c_str(), change.index,
                 static_cast<int>(change.active));
    const Watched input = watched.Copy();
    if (change.index != input.index || change.bankName != input.bankName) {
        return;
    }
    event::AlarmEvent event({{"eventType", typeName},
                             {"alarmIndex", std::to_string(change.index)},
                             {"alarmBank", change.bankName},
                             {"alarmState", change.active ? "1" : "0"}});
    logger.Information("firing");
    FireEvent(event);
}

}  // namespace kelto::halvek::source
