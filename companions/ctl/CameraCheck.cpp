#include "companions/ctl/CameraCheck.h"

#include "companions/ctl/HandlerView.h"
#include "companions/ctl/Nearest.h"
#include "kelto/core/StringUtil.h"
#include "kelto/msgbus/ProviderCall.h"
#include "kelto/osa/Exception.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace kelto::halvek::ctl {

namespace {

using msgbus::ProviderCall;

/** Whether the service itself has refused, so that it knows better; else the bus or its policy has. */
bool IsOfTheService(const std::string& text) {
    return text.find("org.freedesktop.DBus.") == std::string::npos && text.find("com.") != std::string::npos;
}

std::string Joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

}  // namespace

void CameraCheck::Run() {
    CheckAlarms();
    CheckRelays();
    CheckPresets();
    CheckTours();
}

void CameraCheck::ReportSilence(const std::string& provider, const std::string& why) {
    const std::string file =
        examination.store.files.empty() ? examination.store.path : examination.store.files.front().path;
    examination.At("HK5019", {file, 1, 1}, "the camera's service " + provider + " could not be asked: " + why);
}

std::optional<std::vector<std::string>> CameraCheck::AskBanks(const char* provider) {
    try {
        ProviderCall call(provider, "GetBankNames");
        call.Send();
        return call.ReadStrings();
    } catch (const osa::Exception& exception) {
        ReportSilence(provider, exception.what());
        return std::nullopt;
    }
}

void CameraCheck::CheckBank(const std::string& group, const std::string& key, const std::vector<std::string>& banks) {
    const std::string bank = *examination.Value(group, key);
    if (std::find(banks.begin(), banks.end(), bank) == banks.end()) {
        examination
            .AtValue("HK5010", group, key, "the camera has no bank " + Quoted(bank) + "; it has " + Joined(banks))
            .fix = Nearest::Find(bank, banks);
    }
}

void CameraCheck::CheckAlarms() {
    std::vector<std::string> groups;
    for (const ModelSource& source : examination.model->sources) {
        const std::string below = source.group + "/Alarm";
        if (source.type == "Alarm" && examination.Value(below, "BankName") != nullptr) {
            groups.push_back(below);
        }
    }
    const auto banks = groups.empty() ? std::nullopt : AskBanks("AlarmV3");
    for (const std::string& group : groups) {
        if (banks) {
            CheckBank(group, "BankName", *banks);
        }
    }
}

void CameraCheck::CheckRelays() {
    std::optional<std::vector<std::string>> banks;
    bool isAsked = false;
    for (const HandlerView& handler : HandlerView::All(examination)) {
        if (handler.Type() != "Relay" || !handler.IsWired() || !handler.Has("BankName")) {
            continue;
        }
        if (!isAsked) {
            banks = AskBanks("RelayV3");
            isAsked = true;
        }
        if (!banks) {
            return;
        }
        const std::string bank = handler.Value("BankName");
        int32_t index = 0;
        if (std::find(banks->begin(), banks->end(), bank) == banks->end()) {
            CheckBank(handler.GroupOf("BankName"), "BankName", *banks);
        } else if (!handler.Has("Index") || core::StringUtil::TryParse(handler.Value("Index"), index)) {
            try {
                ProviderCall("RelayV3", "GetConfiguration").Append(bank).Append(index).Send();
            } catch (const osa::Exception& exception) {
                if (!IsOfTheService(exception.what())) {
                    ReportSilence("RelayV3", exception.what());
                    return;
                }
                examination.AtValue("HK5010", handler.GroupOf("Index"), "Index",
                                    "the camera says of this relay: " + std::string(exception.what()));
            }
        }
    }
}

void CameraCheck::CheckPresets() {
    for (const HandlerView& handler : HandlerView::All(examination)) {
        if (handler.Type() != "Preset" || !handler.IsWired() || handler.Value("Id").empty()) {
            continue;
        }
        try {
            ProviderCall("PresetsV2", "IsAt").Append(handler.Value("Id")).Send();
        } catch (const osa::Exception& exception) {
            if (!IsOfTheService(exception.what())) {
                ReportSilence("PresetsV2", exception.what());
                return;
            }
            examination.AtValue("HK5010", handler.GroupOf("Id"), "Id",
                                "the camera says of this preset: " + std::string(exception.what()));
        }
    }
}

/** The service can only start one. */
void CameraCheck::CheckTours() {
    for (const HandlerView& handler : HandlerView::All(examination)) {
        if (handler.Type() == "Tour" && handler.IsWired() && !handler.Value("Id").empty()) {
            examination.AtValue("HK5019", handler.GroupOf("Id"), "Id",
                                "whether the camera has this tour cannot be asked without starting it");
        }
    }
}

}  // namespace kelto::halvek::ctl
