#pragma once

#include "camera/service/Provider.h"

namespace kelto::vcam {

class Head;

/** The stored tours of the head, "1" to "3". */
class Tour : public Provider {
public:
    Tour(const ProviderContext& context, Head& cameraHead);

private:
    void Start(Arguments& arguments, Results& results);

    static const sd_bus_vtable methods[];
    Head& head;
};

}  // namespace kelto::vcam
