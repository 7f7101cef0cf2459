#pragma once

#include <string>

namespace kelto::page {

/** A text that nobody can guess: 128 random bits as 32 hexadecimal digits. @throws vcam::Failure */
std::string MakeToken();

}  // namespace kelto::page
