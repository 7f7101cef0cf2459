#include "companions/ctl/Verb.h"
#include "companions/ctl/VerbExplain.h"
#include "companions/ctl/VerbSchedule.h"

#include <array>

namespace kelto::halvek::ctl {

std::span<const Verb> Verbs() {
    static const std::array verbs = {verbSchedule, verbExplain};
    return verbs;
}

}  // namespace kelto::halvek::ctl
