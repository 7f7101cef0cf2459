#include "tests/support/LetPass.h"

#include <thread>

namespace kelto::test {

void LetPass(std::chrono::milliseconds time) {
    std::this_thread::sleep_for(time);
}

}  // namespace kelto::test
