#pragma once

#include "companions/common/EventPipe.h"
#include "companions/common/EventReader.h"
#include "companions/common/ExitStatus.h"
#include "companions/common/ListenerPipe.h"
#include "companions/common/ServiceLog.h"
#include "companions/common/UniqueFd.h"
#include "companions/rules/CommandLine.h"
#include "companions/rules/Engine.h"

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace kelto::companion::rules {

/**
 * Listens to the daemon's events and posts what the rules make of them, until it is told to stop.
 *
 * One thread, which waits at one place only: for an event, a signal, or the end of a window. Nothing else may hold it
 * up, since the daemon loses a descriptor with every event that its output pipe has no room for. At rest without an
 * open window it does not wake up.
 */
class Service : private Engine::Outlet {
public:
    explicit Service(CommandLine commandLine);

    /** Runs it to its end. SIGTERM and SIGINT stop it, SIGHUP has it read its rules anew. */
    ExitStatus Run();

private:
    using Milliseconds = Rule::Milliseconds;

    bool Post(const Rule& rule, const PostedEvent& event, const std::string& block) override;
    void Refuse(const Rule& rule, const std::string& why) override;

    /** Nothing if the rules cannot be used, of which the records say why. */
    std::optional<std::vector<Rule>> ReadRules();
    void Loop(ListenerPipe& pipe, EventReader& reader);
    void ReadPipe(ListenerPipe& pipe, EventReader& reader);
    void Take(const ReceivedEvent& event);
    void TakeTimer();
    void TakeSignal();
    void Reload();
    void ArmTimer(const EventReader& reader);
    void TellStatus();
    std::string StatusText() const;

    // Constant after construction.
    CommandLine line;

    ServiceLog log{"halvek-rules"};
    EventPipe eventPipe;
    Engine engine{*this};
    UniqueFd signals;
    UniqueFd timer;
    bool isStopping = false;
    /** When the timer goes off; nothing while it is not set. */
    std::optional<Milliseconds> armedFor;
    uint64_t staleEvents = 0;
    /** Posts that were dropped since the last one that was not. */
    uint64_t droppedInARow = 0;
    /** The rules of which a refused post has been told since they last posted. */
    std::set<std::string> toldRefused;
    uint64_t toldGivenWay = 0;
    /** When the status was told, and what it was. */
    Milliseconds statusAt{0};
    std::string status;
    /** What is wrong with the rules that it would not take; empty if it has taken the last ones. */
    std::string refusal;
};

}  // namespace kelto::companion::rules
