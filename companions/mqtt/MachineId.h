#pragma once

#include <string>

namespace kelto::halvek::mqtt {

/** What tells this machine from all others. Any thread. */
class MachineId {
public:
    /** Made of the machine's own id, which it does not give away: 32 hexadecimal digits. Empty if there is none. */
    static std::string ForThisProgram();

    /**
     * Whether the machine's id stands where nothing can be written: then it came with the image, and every camera with
     * that image has the same one. Where it did not, the first boot has put it on a writable place.
     */
    static bool ComesWithTheImage();

    /** The hardware address of the first network card, as 12 hexadecimal digits. Empty if there is none. */
    static std::string NetworkAddress();
};

}  // namespace kelto::halvek::mqtt
