#pragma once

#include "companions/page/HttpMessage.h"

#include <string>

namespace kelto::page {

/** The camera's latest picture, which it replaces as a whole. One thread. */
class PictureFile {
public:
    explicit PictureFile(std::string picturePath) : path(std::move(picturePath)) {}

    /** What tells this picture from the one before; empty if there is none. */
    std::string Tag() const;
    /** The picture; 304 if the browser has this very one; 503 if there is none. */
    HttpAnswer Answer(const HttpRequest& request) const;

private:
    const std::string path;
};

}  // namespace kelto::page
