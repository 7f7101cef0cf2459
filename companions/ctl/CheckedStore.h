#pragma once

#include "companions/ctl/Examination.h"
#include "companions/ctl/PostingRules.h"

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

namespace kelto::halvek::ctl {

/** How a store is to be checked. */
struct CheckOptions {
    /** Whether this machine and its camera are looked at too. */
    bool here = false;
    /** By which the clock is put forward; empty if that is not to be looked at. */
    std::string zone = {};
    /** What posts events, and hears them, besides the daemon. */
    PostingRules rules = {};
    /** What the model is to be asked besides. */
    ModelQuestions questions = {};
};

/** One store and all that there is to say of it. */
struct CheckedStore {
    std::unique_ptr<const Store> store;
    std::unique_ptr<Examination> examination;
    /** How many findings comments allow. */
    size_t suppressed = 0;

    size_t Count(Severity severity) const;

    /**
     * Reads the store that the environment's KELTO_SETTINGS names and runs all checks over it. The findings are in the
     * order of their places.
     *
     * @throws Failure if it cannot be read, or changes again and again while it is
     */
    static CheckedStore Check(const std::string& path, const CheckOptions& options);
};

}  // namespace kelto::halvek::ctl
