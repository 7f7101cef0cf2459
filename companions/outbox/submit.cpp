// ftpput and esmtp as the daemon finds them: each hands over what it is given, and does not wait for a network.

#include "companions/outbox/FrontEnds.h"

#include <string_view>

int main(int argc, char** argv) {
    using namespace kelto::halvek::outbox;
    std::string_view name = argc > 0 ? argv[0] : "";
    name.remove_prefix(name.rfind('/') + 1);
    return name == "esmtp" ? RunEsmtp(argc, argv) : RunFtpput(argc, argv);
}
