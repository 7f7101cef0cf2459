#include "kelto/msgbus/MsgBus.h"

namespace kelto::msgbus {

MsgBus::MsgBus() = default;

MsgBus::~MsgBus() = default;

}  // namespace kelto::msgbus
