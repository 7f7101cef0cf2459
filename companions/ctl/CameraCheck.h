#pragma once

#include "companions/ctl/Examination.h"

#include <optional>
#include <string>
#include <vector>

namespace kelto::halvek::ctl {

/**
 * What the camera's services on the bus have to say of the settings: banks, relays and presets that they know. It only
 * asks; nothing on the camera moves. A call takes 5 s at most, and a service that fails is asked no more. One thread.
 */
class CameraCheck {
public:
    explicit CameraCheck(Examination& examined) : examination(examined) {}

    void Run();

private:
    /** The bank names that a provider knows; nothing if it does not answer. */
    std::optional<std::vector<std::string>> AskBanks(const char* provider);
    void CheckAlarms();
    void CheckRelays();
    void CheckPresets();
    void CheckTours();
    void CheckBank(const std::string& group, const std::string& key, const std::vector<std::string>& banks);
    void ReportSilence(const std::string& provider, const std::string& why);

    Examination& examination;
};

}  // namespace kelto::halvek::ctl
