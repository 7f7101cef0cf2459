#include "handler/VassaApiException.h"

namespace kelto::halvek::handler {

VassaApiException::VassaApiException(const std::string& text, vassa_core_status failedStatus)
    : std::runtime_error(text + " (" + vassaCoreStatusToString(failedStatus) + ")"), status(failedStatus) {}

}  // namespace kelto::halvek::handler
