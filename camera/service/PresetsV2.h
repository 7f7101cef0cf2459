#pragma once

#include "camera/service/Provider.h"

namespace kelto::vcam {

class Head;

/** The stored positions of the head, "1" to "10". */
class PresetsV2 : public Provider {
public:
    PresetsV2(const ProviderContext& context, Head& cameraHead);

private:
    void GoTo(Arguments& arguments, Results& results);
    void IsAt(Arguments& arguments, Results& results);

    static const sd_bus_vtable methods[];
    Head& head;
};

}  // namespace kelto::vcam
