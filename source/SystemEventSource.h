#pragma once

#include "kelto/osa/Runnable.h"
#include "source/EventSource.h"

#include <string>

namespace kelto::halvek::source {

/**
 * A retired source: system events are posted from outside now. It keeps the type name known, produces nothing, and
 * every operation that would set it to work logs one Error and changes nothing.
 */
class SystemEventSource : public EventSource, public osa::Runnable {
public:
    explicit SystemEventSource(const std::string& typeName);

    void Configure(const core::IniFile::Group& group) override;
    bool IsConfigured() const override;
    ~SystemEventSource() override = default;

    void StartListening() override;
    void StopListening() override;
    std::string ToString() const override;

    void Run() override;
    void Stop() override;

private:
    [[maybe_unused]] const bool running = false;
    [[maybe_unused]] const std::string unused;
    [[maybe_unused]] const std::string name;
};

}  // namespace kelto::halvek::source
