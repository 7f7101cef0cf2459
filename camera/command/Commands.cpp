#include "camera/command/Commands.h"

#include "camera/command/Actions.h"
#include "camera/command/Alert.h"
#include "camera/command/CameraClient.h"
#include "camera/command/OneLine.h"
#include "camera/command/Words.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace kelto::vcam {

namespace {

void SetAlarm(Words& words) {
    const std::string bank = words.TakeOption("--bank", "Local");
    const int32_t index = words.TakeNumber("INDEX");
    const bool active = words.TakeSwitch("The state");
    words.ExpectNoMore();
    CameraClient().Call("SetAlarm", "sib", bank.c_str(), index, static_cast<int>(active));
}

void SetIdleState(Words& words) {
    const int32_t state = words.TakeNumber("STATE");
    words.ExpectNoMore();
    CameraClient().Call("SetIdleState", "i", state);
}

void SetRecording(Words& words) {
    const bool first = words.TakeSwitch("A");
    const bool second = words.TakeSwitch("B");
    words.ExpectNoMore();
    CameraClient().Call("SetRecording", "bb", static_cast<int>(first), static_cast<int>(second));
}

void SetFault(Words& words) {
    const std::string provider = words.TakeArgument("PROVIDER");
    const std::string kind = words.TakeArgument("KIND");
    words.ExpectNoMore();
    CameraClient().Call("SetFault", "ss", provider.c_str(), kind.c_str());
}

struct Command {
    std::string_view name;
    const char* usage;  ///< what follows the name
    void (*run)(Words& words);
};

constexpr Command commands[] = {
    {"alarm", "INDEX on|off [--bank BANK]", SetAlarm},
    {"alert",
     "[--source SOURCE] [--class CLASS] [--type TYPE] [--rule NAME] [--description TEXT] [--rule-point X,Y]... "
     "[--box-point X,Y]... [--media-type TYPE] [--media-url URL]",
     RaiseAlert},
    {"idle", "STATE", SetIdleState},
    {"recording", "A B (each on or off)", SetRecording},
    {"fault", "PROVIDER KIND", SetFault},
    {"actions", "[--clear]", ShowActions},
};

const Command& FindCommand(const std::string& name) {
    const auto* const found = std::find_if(std::begin(commands), std::end(commands),
                                           [&name](const Command& command) { return command.name == name; });
    if (found == std::end(commands)) {
        std::string known;
        for (const Command& command : commands) {
            known += known.empty() ? "" : ", ";
            known += command.name;
        }
        throw Failure("There is nothing to be done with \"" + OneLine(name) + "\", only " + known + ". Try --help");
    }
    return *found;
}

}  // namespace

void RunCommand(const std::vector<std::string>& words) {
    const Command& command = FindCommand(words.front());
    Words rest(words.front() + " " + command.usage, {words.begin() + 1, words.end()});
    command.run(rest);
}

}  // namespace kelto::vcam
