#include "companions/ctl/Verb.h"

#include <array>

namespace kelto::halvek::ctl {

namespace {

constexpr std::array<Verb, 0> verbs = {};

}  // namespace

std::span<const Verb> Verbs() {
    return verbs;
}

}  // namespace kelto::halvek::ctl
