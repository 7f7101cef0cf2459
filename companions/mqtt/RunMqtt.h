#pragma once

namespace kelto::halvek::mqtt {

/** The whole program: reads the command line, runs the service or answers, and returns the exit status. */
int RunMqtt(int argc, char** argv);

}  // namespace kelto::halvek::mqtt
