#pragma once

#include "vassa/recording_information.h"

#include <stdexcept>
#include <string>

namespace kelto::halvek::handler {

/** A call of the media library that failed. Not a kelto::osa::Exception, so whoever catches those does not catch it. */
class VassaApiException : public std::runtime_error {
public:
    /** The message is the text with the status in words in parentheses behind it. */
    VassaApiException(const std::string& text, vassa_core_status failedStatus);

    vassa_core_status GetStatus() const { return status; }

private:
    vassa_core_status status;
};

}  // namespace kelto::halvek::handler
