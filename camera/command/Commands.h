#pragma once

#include <string>
#include <vector>

namespace kelto::vcam {

/**
 * Has the camera that is running do something, or tells what it was asked to do.
 *
 * @param words the command and what belongs to it, as they were typed
 *
 * Throws Failure if they make no sense, before anything is done, and if the camera cannot be reached or refuses.
 */
void RunCommand(const std::vector<std::string>& words);

}  // namespace kelto::vcam
