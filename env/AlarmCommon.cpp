#include "env/AlarmCommon.h"

#include "env/ComponentInstance.h"

namespace kelto::halvek {

AlarmCommon* AlarmCommon::GetInstance(HalvekEnv* env) {
    return ComponentInstance<AlarmCommon>(env, componentId);
}

AlarmCommon::AlarmCommon(HalvekEnv* env) : client(interfaces::IAlarmV3Provider::CreateClient(BusOf(env))) {}

}  // namespace kelto::halvek
