#pragma once

#include "companions/page/HttpMessage.h"

#include <string>

namespace kelto::page {

/** The files of the page, which are part of the program, and the token that its first one tells the browser. */
class Assets {
public:
    explicit Assets(const std::string& token);

    /** "/", "/page.js", "/page.css" or "/icon.svg"; 304 if the browser has it. */
    HttpAnswer Answer(const HttpRequest& request) const;

private:
    const std::string page;
};

}  // namespace kelto::page
