#include "handler/ShortFileName.h"

#include "kelto/core/StringUtil.h"
#include "kelto/osa/PathUtils.h"

namespace kelto::halvek::handler {

namespace {

constexpr size_t longestStem = 8;

}  // namespace

std::string MakeShortFileName(const std::string& path) noexcept {
    try {
        const std::string stem = osa::PathUtils::BasenameWithoutExtension(path).substr(0, longestStem);
        const std::string extension = osa::PathUtils::FileExt(path);
        std::string result = osa::PathUtils::PathConcat(osa::PathUtils::Dirname(path), stem);
        if (!extension.empty()) {
            result.append(".").append(extension);
        }
        return core::StringUtil::Replace(result, ":", "_");
    } catch (...) {
        return {};
    }
}

}  // namespace kelto::halvek::handler
