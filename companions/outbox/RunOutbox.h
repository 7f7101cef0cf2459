#pragma once

namespace kelto::halvek::outbox {

/** The program halvek-outbox: the service and its verbs. Returns the status to end with, see ExitStatus. */
int RunOutbox(int argc, char** argv);

}  // namespace kelto::halvek::outbox
