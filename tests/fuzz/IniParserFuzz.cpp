#include "kelto/osa/Exception.h"
#include "kelto/settings/IniParser.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

using kelto::core::IniFile;
using kelto::settings::IniParser;

/** Whatever a settings file holds, it is refused as malformed, or what is saved of it reads back the same. */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    IniFile ini;
    try {
        IniParser::Parse({reinterpret_cast<const char*>(data), size}, "fuzz.ini", ini);
    } catch (const kelto::osa::Exception&) {
        return 0;
    }
    IniFile again;
    IniParser::Parse(ini.SaveToString(), "saved.ini", again);
    if (again.GetGroups() != ini.GetGroups()) {
        std::abort();
    }
    return 0;
}
