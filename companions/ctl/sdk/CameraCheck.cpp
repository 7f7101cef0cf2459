#include "companions/ctl/CameraCheck.h"

namespace kelto::halvek::ctl {

void CameraCheck::Run() {
    examination.At("HK5019", StorePositions::BeginOf(examination.store),
                   "this camera is not asked for its banks, relays, presets and tours");
}

}  // namespace kelto::halvek::ctl
