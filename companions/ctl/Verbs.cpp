#include "companions/ctl/Verb.h"
#include "companions/ctl/VerbCheck.h"
#include "companions/ctl/VerbExplain.h"
#include "companions/ctl/VerbGuard.h"
#include "companions/ctl/VerbPost.h"
#include "companions/ctl/VerbRecord.h"
#include "companions/ctl/VerbReload.h"
#include "companions/ctl/VerbReplay.h"
#include "companions/ctl/VerbSchedule.h"
#include "companions/ctl/VerbShow.h"
#include "companions/ctl/VerbStatus.h"
#include "companions/ctl/VerbTry.h"
#include "companions/ctl/VerbWatch.h"

#include <array>

namespace kelto::halvek::ctl {

std::span<const Verb> Verbs() {
    static const std::array verbs = {verbCheck,  verbShow,   verbSchedule, verbExplain, verbPost,   verbWatch,
                                     verbStatus, verbReload, verbTry,      verbGuard,   verbRecord, verbReplay};
    return verbs;
}

}  // namespace kelto::halvek::ctl
