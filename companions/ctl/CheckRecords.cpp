#include "companions/ctl/Checks.h"
#include "companions/ctl/Examination.h"
#include "companions/ctl/HandlerView.h"
#include "companions/ctl/KnownNames.h"
#include "companions/ctl/model/RecordFile.h"

#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <utility>

namespace kelto::halvek::ctl {

namespace {

using Record = std::pair<std::string, std::string>;

/** Of findings whose record the daemon writes at an event, or before it loads anything. */
bool IsBesideLoading(const Finding& finding) {
    constexpr std::array<std::string_view, 12> ids = {"HK1001", "HK1003", "HK1004", "HK2017", "HK3005", "HK3006",
                                                      "HK3013", "HK3020", "HK3027", "HK4001", "HK4005", "HK5007"};
    return std::find(ids.begin(), ids.end(), finding.entry->id) != ids.end();
}

/** The source, handler or server to which a group belongs. */
std::string ItemOf(const std::string& group) {
    const std::optional<ItemName> name = ItemName::Parse(group);
    return name ? name->item : group;
}

/** Whether the camera that the settings run on decides about the record, and not they. */
bool IsOfTheMachine(const Examination& examination, const ModelRecord& record) {
    const bool isOfBasePath = record.text == "\tNo destination path found, using default";
    const bool isOfBus = record.text == "Failed when querying current idle state.";
    return isOfBus || (isOfBasePath && !HandlerView(examination, record.group).Value("BasePath").empty());
}

void ReportUnforetold(Examination& examination, const ModelRecord& record) {
    Finding& finding = examination.AtGroup("HK1099", record.group, "the daemon reports: " + record.text);
    finding.severity = record.level == core::LogLevel::Error ? Severity::Error : Severity::Warning;
    finding.foretells = record.text;
}

}  // namespace

void CheckRecords(Examination& examination) {
    if (!RecordFile::IsReadable()) {
        return;
    }
    std::set<Record> reported;
    if (examination.model) {
        for (const ModelRecord& record : examination.model->records) {
            reported.emplace(record.group, record.text);
        }
    }
    std::set<Record> foretold;
    for (Finding& finding : examination.Findings()) {
        if (!finding.foretells) {
            continue;
        }
        finding.foretells = RecordFile::AsRecord(*finding.foretells);
        if ((IsBesideLoading(finding) && (examination.model || finding.entry->id < std::string("HK1010")))) {
            continue;
        }
        Record record(ItemOf(finding.group), *finding.foretells);
        if (reported.count(record) == 0) {
            finding.foretells = std::nullopt;
        } else {
            foretold.insert(std::move(record));
        }
    }
    if (!examination.model) {
        return;
    }
    for (const ModelRecord& record : examination.model->records) {
        if (!IsOfTheMachine(examination, record) && foretold.emplace(record.group, record.text).second) {
            ReportUnforetold(examination, record);
        }
    }
}

}  // namespace kelto::halvek::ctl
