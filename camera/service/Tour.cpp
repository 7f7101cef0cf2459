#include "camera/service/Tour.h"

#include "camera/device/Head.h"

namespace kelto::vcam {

const sd_bus_vtable Tour::methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD_WITH_ARGS("Start", SD_BUS_ARGS("s", id, "i", level), SD_BUS_NO_RESULT, OnCall<&Tour::Start>,
                            SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

Tour::Tour(const ProviderContext& context, Head& cameraHead) : Provider(context, "Tour", methods), head(cameraHead) {}

void Tour::Start(Arguments& arguments, Results&) {
    const std::string id = arguments.ReadString();
    head.StartTour(id, arguments.ReadInt());
}

}  // namespace kelto::vcam
