#pragma once

namespace kelto::companion::rules {

/** What the program ends with. Scripts rely on the numbers: none is ever given another meaning. */
enum ExitStatus : int {
    /** Done, and the answer is yes; the service has stopped in good order. */
    exitYes = 0,
    /** Done, and the answer is no: findings, or something else came out than was expected. */
    exitNo = 1,
    /** The command line, or the script of a test, is wrong; nothing was done. */
    exitUsage = 2,
    /** It could not be done: unreadable, no permission, nowhere to write to. */
    exitFailed = 3,
    /** The service has no rules that it could use. Starting it again does not help. */
    exitConfiguration = 78,
};

}  // namespace kelto::companion::rules
