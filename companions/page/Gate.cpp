#include "companions/page/Gate.h"

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

namespace kelto::page {

namespace {

constexpr std::string_view scheme = "http://";
constexpr std::string_view json = "application/json";

/** The methods that each path takes. */
const std::map<std::string_view, std::string_view>& Paths() {
    static const std::map<std::string_view, std::string_view> paths = {
        {"/", "GET, HEAD"},        {"/page.js", "GET, HEAD"}, {"/page.css", "GET, HEAD"}, {"/icon.svg", "GET, HEAD"},
        {"/picture", "GET, HEAD"}, {"/state", "GET, HEAD"},   {"/stream", "GET"},         {"/wiring", "GET, HEAD"},
        {"/explain", "GET, HEAD"}, {"/alarm", "POST"},        {"/head", "POST"},          {"/recording", "POST"},
        {"/alert", "POST"},        {"/fault", "POST"},        {"/post", "POST"}};
    return paths;
}

bool Takes(std::string_view methods, std::string_view method) {
    return methods == "GET, HEAD" ? method == "GET" || method == "HEAD" : method == methods;
}

std::string Lower(std::string_view text) {
    std::string lower(text);
    std::ranges::transform(lower, lower.begin(), [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    });
    return lower;
}

bool IsPort(std::string_view text) {
    return text.empty() || (text.size() > 1 && text.size() <= 6 && text.front() == ':' &&
                            std::ranges::all_of(text.substr(1), [](char c) { return c >= '0' && c <= '9'; }));
}

/** A host without its port; empty if that is none. */
std::string_view NameOf(std::string_view host) {
    const size_t bracket = host.starts_with('[') ? host.find(']') : 0;
    if (bracket == std::string_view::npos) {
        return {};
    }
    const std::string_view name = host.substr(0, host.find(':', bracket));
    return IsPort(host.substr(name.size())) ? name : std::string_view();
}

bool IsJson(std::string_view contentType) {
    std::string_view type = contentType.substr(0, contentType.find(';'));
    while (type.ends_with(' ') || type.ends_with('\t')) {
        type.remove_suffix(1);
    }
    return Lower(type) == json;
}

/** In a time that tells nothing of where they differ. */
bool AreEqual(std::string_view one, std::string_view other) {
    unsigned difference = one.size() == other.size() ? 0 : 1;
    for (size_t i = 0; i < one.size() && i < other.size(); ++i) {
        difference |= static_cast<unsigned>(static_cast<unsigned char>(one[i]) ^ static_cast<unsigned char>(other[i]));
    }
    return difference == 0;
}

std::vector<std::string> WithLoopback(std::vector<std::string> hosts) {
    hosts.insert(hosts.end(), {"localhost", "127.0.0.1", "[::1]"});
    std::ranges::transform(hosts, hosts.begin(), Lower);
    return hosts;
}

}  // namespace

Gate::Gate(std::vector<std::string> hosts, std::string pageToken)
    : names(WithLoopback(std::move(hosts))), token(std::move(pageToken)) {}

std::optional<HttpAnswer> Gate::Refuse(const HttpRequest& request) const {
    if (!IsOurs(request.host)) {
        return HttpAnswer::Of(421, "This page is not at the host that was asked for");
    }
    const auto path = Paths().find(request.path);
    if (path == Paths().end()) {
        return HttpAnswer::Of(404, "There is nothing here");
    }
    if (!Takes(path->second, request.method)) {
        HttpAnswer answer = HttpAnswer::Of(405, "Not by this method");
        answer.headers.emplace_back("Allow", path->second);
        return answer;
    }
    if (!request.origin.empty() && request.origin != scheme.data() + request.host) {
        return HttpAnswer::Of(403, "Another page must not ask for this");
    }
    if (request.method != "POST") {
        return std::nullopt;
    }
    if (!AreEqual(request.token, token)) {
        return HttpAnswer::Of(403, "The token is not that of the page: load it anew");
    }
    if (!IsJson(request.contentType)) {
        return HttpAnswer::Of(415, "Only application/json is taken");
    }
    if (request.body.size() > largestBody) {
        return HttpAnswer::Of(413, "More than 4096 bytes are not taken");
    }
    return std::nullopt;
}

bool Gate::IsOurs(const std::string& host) const {
    const std::string name = Lower(NameOf(host));
    return !name.empty() && std::ranges::find(names, name) != names.end();
}

}  // namespace kelto::page
