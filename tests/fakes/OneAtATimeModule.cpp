#include "kelto/inet/MailModule.h"

#include <atomic>
#include <ctime>

// A mail module whose mails say whether it was at work for one thread alone.

namespace {

std::atomic<int> inside = 0;
char alone[] = "alone";
char crowded[] = "crowded";

}  // namespace

extern "C" kelto_mail_buffer kelto_mail_write(const kelto_mail*) {
    bool isAlone = ++inside == 1;
    // Long enough for another thread to come.
    const timespec moment{0, 1000000};
    nanosleep(&moment, nullptr);
    isAlone = isAlone && inside == 1;
    --inside;
    return isAlone ? kelto_mail_buffer{alone, sizeof(alone) - 1} : kelto_mail_buffer{crowded, sizeof(crowded) - 1};
}

extern "C" void kelto_mail_release(char*) {}
