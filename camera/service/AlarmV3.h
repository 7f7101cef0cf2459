#pragma once

#include "camera/service/BankProvider.h"

namespace kelto::vcam {

/** The alarm inputs, eight in each bank. */
class AlarmV3 : public BankProvider {
public:
    AlarmV3(const ProviderContext& context);

    /** Tells everybody the state of an input, also one that it has already. Throws Refusal. */
    void SetState(const std::string& bank, int32_t index, bool active);

private:
    static const sd_bus_vtable methods[];
};

}  // namespace kelto::vcam
