#include "companions/common/BackOff.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>

namespace kelto::companion {

namespace {

/** Another one on every machine, although all of them start with the same image at the same moment. */
std::minstd_rand::result_type Seed() {
    std::minstd_rand::result_type seed = 0;
    if (getrandom(&seed, sizeof seed, GRND_NONBLOCK) != static_cast<ssize_t>(sizeof seed)) {
        seed = static_cast<std::minstd_rand::result_type>(getpid());
    }
    return seed;
}

}  // namespace

BackOff::BackOff(Milliseconds firstLimit, Milliseconds lastLimit)
    : first(firstLimit), most(lastLimit), limit(firstLimit), random(Seed()) {}

BackOff::Milliseconds BackOff::Next() {
    const Milliseconds wait(std::uniform_int_distribution<Milliseconds::rep>(0, limit.count())(random));
    limit = std::min(limit * 2, most);
    return wait;
}

}  // namespace kelto::companion
