#pragma once

namespace kelto::companion::rules {

/** The whole program. Returns what it ends with. */
int RunRules(int argc, char** argv);

}  // namespace kelto::companion::rules
