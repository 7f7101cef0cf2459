#include "source/SystemEventSource.h"

#include "kelto/core/Logger.h"

namespace kelto::halvek::source {

namespace {

void LogRetired() {
    core::Logger::GetLogger("halvek").Error(
        "SystemEventSource: Now an external event, this should not have been called!");
}

}  // namespace

SystemEventSource::SystemEventSource(const std::string& typeName) : name(typeName) {}

void SystemEventSource::Configure(const core::IniFile::Group&) {
    LogRetired();
}

bool SystemEventSource::IsConfigured() const {
    return false;
}

void SystemEventSource::StartListening() {
    LogRetired();
}

void SystemEventSource::StopListening() {
    LogRetired();
}

std::string SystemEventSource::ToString() const {
    return "EventSource{System}";
}

void SystemEventSource::Run() {
    LogRetired();
}

void SystemEventSource::Stop() {
    LogRetired();
}

}  // namespace kelto::halvek::source
