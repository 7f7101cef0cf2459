#pragma once

#include <chrono>

namespace kelto::test {

/** Lets time pass, for what shall not happen meanwhile or has to have lasted so long: there is nothing to wait for. */
void LetPass(std::chrono::milliseconds time);

}  // namespace kelto::test
