#pragma once

namespace kelto::halvek::ctl {

/** The whole program: reads the command line, runs the verb and writes its answer. Returns the exit status. */
int RunCtl(int argc, char** argv);

}  // namespace kelto::halvek::ctl
