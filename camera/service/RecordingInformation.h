#pragma once

#include "camera/service/Provider.h"

namespace kelto::vcam {

/** Whether the camera records to its card. */
class RecordingInformation : public Provider {
public:
    RecordingInformation(const ProviderContext& context);

    /** The first two numbers of the summary; nothing is being recorded while both are false. */
    void SetRecording(bool first, bool second);

    /** Adds those two, as the method GetState tells them. */
    void AppendState(sd_bus_message* reply) const;

private:
    void GetSummary(Arguments& arguments, Results& results);

    static const sd_bus_vtable methods[];
    bool a = false;
    bool b = false;
};

}  // namespace kelto::vcam
