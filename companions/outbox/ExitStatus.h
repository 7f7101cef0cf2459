#pragma once

namespace kelto::halvek::outbox {

/** What the program's verbs end with. Scripts rely on the four numbers. */
enum ExitStatus : int {
    exitYes = 0,
    /** Done, and the answer is no: findings, no such item. */
    exitNo = 1,
    /** The command line is wrong; nothing was done. */
    exitUsage = 2,
    /** It could not be done: there is no service to ask, or it does not let us. */
    exitFailed = 3,
};

}  // namespace kelto::halvek::outbox
