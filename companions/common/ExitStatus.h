#pragma once

namespace kelto::companion {

/** What the programs end with. Scripts and units rely on the numbers: none is ever given another meaning. */
enum ExitStatus : int {
    /** Done, and the answer is yes; the service has stopped in good order. */
    exitYes = 0,
    /** Done, and the answer is no: findings, not connected, no such item. Of the service: it could not go on. */
    exitNo = 1,
    /** The command line, or the script of a test, is wrong; nothing was done. */
    exitUsage = 2,
    /** It could not be done: unreadable, no service to ask, no permission, nowhere to write to. */
    exitFailed = 3,
    /** The service's configuration is wrong: another start would not help. */
    exitConfiguration = 78,
};

}  // namespace kelto::companion
