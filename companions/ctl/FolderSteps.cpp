#include "companions/ctl/HandlerSteps.h"
#include "companions/ctl/ShellWords.h"
#include "companions/ctl/ValueForm.h"
#include "handler/SizeWithSuffix.h"
#include "kelto/core/StringUtil.h"

#include <cstdint>
#include <string>

namespace kelto::halvek::ctl {

namespace {

uint64_t LimitOf(const std::string& text) {
    uint32_t bytes = 0;
    return core::StringUtil::TryParse(text, bytes) ? bytes : handler::ParseSizeWithSuffix(text);
}

bool SaysNoLimit(const std::string& text) {
    return text.empty() || text.find_first_not_of('0') == std::string::npos;
}

void CheckLimit(Examination& examination, const HandlerView& handler) {
    constexpr uint64_t leastPicture = 4096;
    const std::string text = handler.Value("LimitSize");
    const std::string group = handler.GroupOf("LimitSize");
    const uint64_t limit = LimitOf(text);
    if (limit == 0) {
        if (!SaysNoLimit(text)) {
            examination
                .AtValue("HK3018", group, "LimitSize",
                         Quoted(text) +
                             " is no size, which means no limit; allowed is a number of bytes, or a "
                             "whole number with one of k, M, G, T")
                .fix = ValueForm::Size(text);
        }
        return;
    }
    if (limit > UINT32_MAX) {
        examination
            .AtValue("HK5005", group, "LimitSize",
                     Quoted(text) + " is 4 GiB or more, which deletes nothing; write at most 4095M")
            .fix = "4095M";
    } else if (limit < leastPicture) {
        examination.AtValue("HK5005", group, "LimitSize",
                            Quoted(text) + " are " + std::to_string(limit) +
                                " bytes: the limit must hold the snapshot "
                                "twice");
    }
    const std::string path = handler.Value("DestinationPath");
    if (!ShellWords::IsPlain(path)) {
        examination.AtValue("HK5006", handler.GroupOf("DestinationPath"), "DestinationPath",
                            "with a LimitSize a shell reads this path: use letters, digits, . - _ and / only");
    }
}

}  // namespace

void CheckFolder(Examination& examination, const HandlerView& handler) {
    const std::string path = handler.Value("DestinationPath");
    if (path.empty()) {
        examination
            .AtValue("HK3020", handler.GroupOf("DestinationPath"), "DestinationPath",
                     "without a DestinationPath every action fails")
            .foretells = AtEachEvent(handler, "FolderEventHandler: Illegal file name or path");
    } else if (path.front() != '/') {
        examination
            .AtValue("HK3021", handler.GroupOf("DestinationPath"), "DestinationPath",
                     Quoted(path) + " is looked up from the folder that the daemon was started in")
            .fix = "/" + path;
    }
    CheckLimit(examination, handler);
}

}  // namespace kelto::halvek::ctl
