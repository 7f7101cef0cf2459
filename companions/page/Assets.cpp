#include "companions/page/Assets.h"

#include "companions/page/EmbeddedFiles.h"
#include "companions/page/EntityTag.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace kelto::page {

namespace {

constexpr std::string_view placeholder = "@TOKEN@";

std::string WithToken(const std::string& token) {
    std::string page(embedded::page_html);
    page.replace(page.find(placeholder), placeholder.size(), token);
    return page;
}

/** FNV-1a: tells one release of a file from another, and one start's token from another. */
std::string TagOf(std::string_view content) {
    uint64_t hash = 0xcbf29ce484222325;
    for (const char byte : content) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    }
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "\"%016llx\"", static_cast<unsigned long long>(hash));
    return text.data();
}

HttpAnswer Embedded(const HttpRequest& request, std::string_view content, const char* type) {
    HttpAnswer answer;
    const std::string tag = TagOf(content);
    answer.headers = {{"ETag", tag}, {"Cache-Control", "no-cache"}};
    if (Names(request.ifNoneMatch, tag)) {
        answer.status = 304;
        return answer;
    }
    answer.contentType = type;
    answer.body = content;
    return answer;
}

}  // namespace

Assets::Assets(const std::string& token) : page(WithToken(token)) {}

HttpAnswer Assets::Answer(const HttpRequest& request) const {
    if (request.path == "/page.js") {
        return Embedded(request, embedded::page_js, "text/javascript; charset=utf-8");
    }
    if (request.path == "/page.css") {
        return Embedded(request, embedded::page_css, "text/css; charset=utf-8");
    }
    if (request.path == "/icon.svg") {
        return Embedded(request, embedded::icon_svg, "image/svg+xml");
    }
    return Embedded(request, page, "text/html; charset=utf-8");
}

}  // namespace kelto::page
