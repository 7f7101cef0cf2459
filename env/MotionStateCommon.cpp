#include "env/MotionStateCommon.h"

#include "env/ComponentInstance.h"

namespace kelto::halvek {

MotionStateCommon* MotionStateCommon::GetInstance(HalvekEnv* env) {
    return ComponentInstance<MotionStateCommon>(env, componentId);
}

MotionStateCommon::MotionStateCommon(HalvekEnv* env)
    : client(interfaces::IMotionStateProvider::CreateClient(BusOf(env))) {}

}  // namespace kelto::halvek
