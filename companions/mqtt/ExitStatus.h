#pragma once

namespace kelto::halvek::mqtt {

/** What the program ends with. Scripts and the unit rely on the numbers: none is ever given another meaning. */
enum ExitStatus : int {
    /** Done, and the answer is yes. */
    exitYes = 0,
    /** Done, and the answer is no: findings, not connected. Of the service: it could not go on. */
    exitNo = 1,
    /** The command line is wrong; nothing was done. */
    exitUsage = 2,
    /** It could not be done: unreadable, no bridge, nowhere to write to. */
    exitFailed = 3,
    /** The service's configuration is wrong: another start would not help. */
    exitConfig = 78,
};

}  // namespace kelto::halvek::mqtt
