#include "camera/runtime/Failure.h"

#include <cstring>

namespace kelto::vcam {

int Check(int result, const std::string& what) {
    if (result < 0) {
        throw Failure(what + ": " + std::strerror(-result));
    }
    return result;
}

}  // namespace kelto::vcam
