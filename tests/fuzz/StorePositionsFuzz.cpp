#include "tests/fakes/PositionsComparison.h"

#include <cstdint>
#include <cstdlib>

/** Whatever two settings files hold, parted by the first NUL, the positions are of the very groups that the store has.
 */
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t part = input.find('\0');
    const std::vector<std::string> texts = {input.substr(0, part),
                                            part == std::string::npos ? std::string() : input.substr(part + 1)};
    if (kelto::test::ParseWithTheStore(texts) != kelto::test::ParseWithPositions(texts)) {
        std::abort();
    }
    return 0;
}
