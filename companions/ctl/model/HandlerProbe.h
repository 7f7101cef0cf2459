#pragma once

#include "companions/ctl/model/HandlerProbes.h"
#include "companions/ctl/model/Ledger.h"

#include <utility>

namespace kelto::halvek::ctl {

/**
 * A handler of the daemon's whose action is to tell that it acts. All else, what it is configured from, whether it is
 * configured and what its filter lets through, is the daemon's.
 */
template <typename Handler>
class HandlerProbe : public ProbedHandler, public Handler {
public:
    template <typename... Arguments>
    explicit HandlerProbe(Ledger& probeLedger, Arguments&&... arguments)
        : ProbedHandler(probeLedger), Handler(std::forward<Arguments>(arguments)...) {}

    void Configure(const core::IniFile::Group& group) override {
        settings = group;
        if (const auto known = settings.extract(HandlerProbes::groupKey)) {
            name = known.mapped();
            isAlwaysOn = false;
        }
        Handler::Configure(settings);
        ledger.handlers.push_back(this);
    }

    void PerformAction(Event&) override { ledger.NoteAction(*this); }

    bool CallsItselfConfigured() const override { return Handler::IsConfigured(); }
};

}  // namespace kelto::halvek::ctl
