#pragma once

namespace kelto::halvek::ctl {

/** What the program ends with. Scripts rely on the four numbers: none is ever added or given another meaning. */
enum ExitStatus : int {
    /** Done, and the answer is yes. */
    exitYes = 0,
    /** Done, and the answer is no: findings, nobody would act, what was tried has failed. */
    exitNo = 1,
    /** The command line is wrong; nothing was done. */
    exitUsage = 2,
    /** It could not be done: unreadable, no daemon, no permission, time-out, the model crashed, nowhere to write to. */
    exitFailed = 3,
};

}  // namespace kelto::halvek::ctl
