#pragma once

#include "source/EventSource.h"
#include "tests/support/Journal.h"

#include <functional>
#include <string>

namespace kelto::test {

/** What a test wants done at an operation of a source; may throw. */
struct ProbeActions {
    std::function<void()> configure = {};
    std::function<void()> start = {};
    std::function<void()> stop = {};
};

/**
 * A real source without a thread of its own: notes what is done with it in a journal, "configure <name>" for instance,
 * and then does what a test wants. Events are fired by hand.
 */
class ProbeSource : public halvek::EventSource {
public:
    using Actions = ProbeActions;

    ProbeSource(Journal& probeJournal, const std::string& probeName, Actions probeActions = {});

    void Configure(const core::IniFile::Group& group) override;
    bool IsConfigured() const override { return configured; }
    ~ProbeSource() override;
    using EventSource::AddHandler;
    void AddHandler(halvek::EventHandler* handler) override;
    void StartListening() override;
    void StopListening() override;
    std::string ToString() const override { return "EventSource{" + name + "}"; }

    /** Has IsConfigured answer something else than true. */
    void SetConfigured(bool isConfigured) { configured = isConfigured; }

private:
    Journal& journal;
    const std::string name;
    const Actions actions;
    bool configured = true;
};

}  // namespace kelto::test
