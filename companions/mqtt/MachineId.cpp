#include "companions/mqtt/MachineId.h"

#include <dirent.h>
#include <sys/statvfs.h>
#include <systemd/sd-id128.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <memory>
#include <vector>

namespace kelto::halvek::mqtt {

namespace {

constexpr const char* networkFolder = "/sys/class/net";
constexpr const char* noAddress = "000000000000";

std::vector<std::string> NetworkCards() {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(networkFolder), closedir);
    while (folder != nullptr) {
        const dirent* entry = readdir(folder.get());
        if (entry == nullptr) {
            break;
        }
        const std::string name = entry->d_name;
        if (name.front() != '.' && name != "lo") {
            names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

std::string MachineId::ForThisProgram() {
    // Ours alone: nobody can tell from it what the machine's id is, or what another program makes of that.
    constexpr sd_id128_t own{
        {0x6b, 0x1f, 0x52, 0xd8, 0x9e, 0x0c, 0x4a, 0x6e, 0x8d, 0x27, 0x5a, 0xf4, 0x31, 0xc0, 0xe9, 0x73}};
    sd_id128_t id{};
    if (sd_id128_get_machine_app_specific(own, &id) < 0) {
        return {};
    }
    std::array<char, SD_ID128_STRING_MAX> text{};
    return sd_id128_to_string(id, text.data());
}

bool MachineId::ComesWithTheImage() {
    struct statvfs place {};
    return statvfs("/etc/machine-id", &place) == 0 && (place.f_flag & ST_RDONLY) != 0;
}

std::string MachineId::NetworkAddress() {
    for (const std::string& name : NetworkCards()) {
        std::ifstream file(networkFolder + ("/" + name) + "/address");
        std::string address;
        std::getline(file, address);
        std::erase(address, ':');
        if (address.size() == 12 && address != noAddress) {
            return address;
        }
    }
    return {};
}

}  // namespace kelto::halvek::mqtt
