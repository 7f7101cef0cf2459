#include "tests/fakes/ProbeSource.h"

namespace kelto::test {

namespace {

void RunIfSet(const std::function<void()>& action) {
    if (action) {
        action();
    }
}

}  // namespace

ProbeSource::ProbeSource(Journal& probeJournal, const std::string& probeName, Actions probeActions)
    : journal(probeJournal), name(probeName), actions(std::move(probeActions)) {
    journal.Note("make " + name);
}

ProbeSource::~ProbeSource() {
    journal.Note("destroy " + name);
}

void ProbeSource::Configure(const core::IniFile::Group& group) {
    std::string settings;
    for (const auto& [key, value] : group) {
        settings.append(" ").append(key).append("=").append(value);
    }
    journal.Note("configure " + name + settings);
    RunIfSet(actions.configure);
}

void ProbeSource::AddHandler(halvek::EventHandler* handler) {
    journal.Note("attach to " + name);
    EventSource::AddHandler(handler);
}

void ProbeSource::StartListening() {
    journal.Note("start " + name);
    RunIfSet(actions.start);
}

void ProbeSource::StopListening() {
    journal.Note("stop " + name);
    RunIfSet(actions.stop);
}

}  // namespace kelto::test
