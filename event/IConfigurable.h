#pragma once

#include "kelto/core/IniFile.h"

namespace kelto::halvek {

/** Everything that is set up from one settings group. Used on the event monitor's thread. */
class IConfigurable {
public:
    /**
     * Takes what it needs from its group.
     *
     * @throws std::exception if it cannot work with it; the object is destroyed then
     */
    virtual void Configure(const core::IniFile::Group& group) = 0;

    /** Whether the object has all that it needs. */
    virtual bool IsConfigured() const = 0;

    virtual ~IConfigurable() = default;

    IConfigurable(const IConfigurable&) = delete;
    IConfigurable& operator=(const IConfigurable&) = delete;

protected:
    IConfigurable() = default;
};

}  // namespace kelto::halvek
