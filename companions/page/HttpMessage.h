#pragma once

#include <string>
#include <utility>
#include <vector>

namespace kelto::page {

/** What a browser asks for. */
struct HttpRequest {
    std::string method;
    std::string path;  ///< without the query
    /** Header fields, empty if they are not there; of one that comes twice all, with a line break between. */
    std::string host;
    std::string origin;
    std::string token;
    std::string contentType;
    std::string ifNoneMatch;
    std::string cursor;  ///< the id that the browser saw last
    std::string body;    ///< cut behind the first byte that is too much
};

/** What it gets. */
struct HttpAnswer {
    int status = 200;
    std::string contentType = "text/plain; charset=utf-8";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;

    /** The answer is what happens from now on; the body is none. */
    bool isStream = false;

    /** A plain text. */
    static HttpAnswer Of(int status, std::string text = {}) {
        HttpAnswer answer;
        answer.status = status;
        answer.body = std::move(text);
        return answer;
    }
};

}  // namespace kelto::page
