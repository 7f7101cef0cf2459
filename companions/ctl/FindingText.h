#pragma once

#include "companions/common/Json.h"
#include "companions/ctl/Answer.h"
#include "companions/ctl/Examination.h"

namespace kelto::halvek::ctl {

/** How findings are told. */
class FindingText {
public:
    /** "FILE:LINE:COLUMN: error: text [HK3004]"; on a terminal with the line, a caret and the fix below. */
    static void Add(Answer& answer, const Examination& examination, const Finding& finding);

    /** One object. */
    static void Add(companion::Json& json, const Finding& finding);
};

}  // namespace kelto::halvek::ctl
