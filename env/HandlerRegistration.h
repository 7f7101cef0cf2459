#pragma once

#include <cstdint>
#include <memory>

namespace kelto::halvek {

class EventHandler;
class HalvekEnv;

/** What a handler type is called and how one is made. One constant record of static life a type. */
struct HandlerRegistration {
    /** The value of a handler group's "Type". */
    const char* name;

    /** Makes a handler. The environment must outlive it. */
    std::unique_ptr<EventHandler> (*create)(HalvekEnv* env);

    /** 0: made when a settings group asks for it; 1: always on, made by every configuration and attached to all
     * sources. */
    int32_t kind;
};

}  // namespace kelto::halvek
