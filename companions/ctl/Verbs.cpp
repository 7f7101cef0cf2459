#include "companions/ctl/Verb.h"
#include "companions/ctl/VerbExplain.h"

#include <array>

namespace kelto::halvek::ctl {

std::span<const Verb> Verbs() {
    static const std::array verbs = {verbExplain};
    return verbs;
}

}  // namespace kelto::halvek::ctl
