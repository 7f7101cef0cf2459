#include "companions/ctl/CheckedStore.h"

#include "companions/ctl/CameraCheck.h"
#include "companions/ctl/Checks.h"
#include "companions/ctl/Failure.h"
#include "companions/ctl/MachineCheck.h"
#include "companions/ctl/Suppressions.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

constexpr unsigned mostTries = 3;

/** The model reads the store by itself: what was found holds only if both have read the same. */
std::unique_ptr<const Store> ReadWithModel(const std::string& path, const ModelQuestions& questions,
                                           std::unique_ptr<Examination>& examination) {
    for (unsigned tries = 0; tries < mostTries; ++tries) {
        auto store = std::make_unique<const Store>(Store::Read(path));
        examination = std::make_unique<Examination>(*store);
        if (examination->positions.FirstMalformed() == nullptr) {
            examination->model = AskModel(questions);
        }
        if (store->Holds()) {
            return store;
        }
    }
    throw Failure("cannot read settings " + path + ": they change while they are read");
}

void RunChecks(Examination& examination, const CheckOptions& options) {
    CheckText(examination);
    CheckNames(examination);
    CheckSecurity(examination);
    CheckSources(examination);
    CheckHandlers(examination);
    CheckSchedules(examination, options.zone);
    if (examination.model) {
        CheckWiring(examination);
    }
    if (options.here) {
        MachineCheck(examination).Run();
        if (examination.model) {
            CameraCheck(examination).Run();
        }
    }
    CheckRecords(examination);
}

/** Files in the order in which they are read; those that are not read stand last. */
void Sort(Examination& examination) {
    std::map<std::string, size_t> order;
    for (const Store::File& file : examination.store.files) {
        order.emplace(file.path, order.size());
    }
    const auto place = [&](const Finding& finding) {
        const auto found = order.find(finding.position.file);
        return std::tuple(found == order.end() ? order.size() : found->second, finding.position.line,
                          finding.position.column, std::string_view(finding.entry->id));
    };
    std::stable_sort(examination.Findings().begin(), examination.Findings().end(),
                     [&](const Finding& one, const Finding& other) { return place(one) < place(other); });
}

}  // namespace

size_t CheckedStore::Count(Severity severity) const {
    const std::deque<Finding>& findings = examination->Findings();
    return static_cast<size_t>(std::count_if(findings.begin(), findings.end(),
                                             [&](const Finding& finding) { return finding.severity == severity; }));
}

CheckedStore CheckedStore::Check(const std::string& path, const CheckOptions& options) {
    CheckedStore checked;
    checked.store = ReadWithModel(path, options.questions, checked.examination);
    RunChecks(*checked.examination, options);
    checked.suppressed = Suppressions::Apply(*checked.examination, options.here, options.rules);
    Sort(*checked.examination);
    return checked;
}

}  // namespace kelto::halvek::ctl
