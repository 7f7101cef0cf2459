#pragma once

#include "camera/BankProvider.h"

namespace kelto::vcam {

/** The alarm inputs, eight in each bank. */
class AlarmV3 : public BankProvider {
public:
    AlarmV3(Bus& systemBus, EventLoop& eventLoop, ActionLog& actionLog);

    /** Tells everybody the state of an input, also one that it has already. Throws MethodError. */
    void SetState(const std::string& bank, int32_t index, bool active);

private:
    static const sd_bus_vtable methods[];
};

}  // namespace kelto::vcam
