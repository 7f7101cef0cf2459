#pragma once

#include "kelto/msgbus/MessageFilter.h"
#include "kelto/msgbus/MsgBusMsg.h"
#include "kelto/osa/Exception.h"

#include <string>

namespace kelto::interfaces {

/** The filter for a signal of one of the camera's services: only the owner of the service's bus name counts. */
inline msgbus::MessageFilter ProviderSignal(const std::string& provider, const std::string& signal) {
    const std::string name = "com.kelto." + provider;
    return {.name = signal, .domain = name, .sender = name, .path = "/com/kelto/" + provider};
}

/** Throws kelto::osa::Exception if a message's arguments are not of these types. */
inline void CheckSignature(const msgbus::MsgBusMsg& message, const char* expected) {
    if (message.signature != expected) {
        throw osa::Exception("Message %s.%s has arguments \"%s\" instead of \"%s\"", message.domain.c_str(),
                             message.name.c_str(), message.signature.c_str(), expected);
    }
}

}  // namespace kelto::interfaces
