#pragma once

#include "companions/ctl/Store.h"

#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/** The SHA-256 of all files' texts, one behind the other in the order in which they are read, as 64 hexadecimal digits:
 * what "cat FILE... | sha256sum" says. */
std::string Sha256Of(const std::vector<Store::File>& files);

}  // namespace kelto::halvek::ctl
