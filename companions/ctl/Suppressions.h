#pragma once

#include "companions/ctl/Examination.h"
#include "companions/ctl/PostingRules.h"

#include <cstddef>

namespace kelto::halvek::ctl {

/**
 * What comments in the settings allow: "; halvekctl: allow HK4002 -- reason" above a key, or above the header of a
 * group for all of that group, and "; halvekctl: posted TYPE..." anywhere. The daemon ignores comments. One thread.
 */
class Suppressions {
public:
    /**
     * Takes away what is allowed, and adds what is wrong with the comments themselves.
     *
     * @param here whether what only the machine can show was looked for
     * @param rules what they post is known to be posted, and what they hear is named by somebody
     * @return how many findings were taken away
     */
    static size_t Apply(Examination& examination, bool here, const PostingRules& rules);
};

}  // namespace kelto::halvek::ctl
