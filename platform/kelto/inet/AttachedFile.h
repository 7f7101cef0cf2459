#pragma once

#include <string>

namespace kelto::inet {

/** What kind of data a file holds, "image" and "jpeg" for instance. */
struct MediaType {
    const char* type;
    const char* subtype;
};

/** The type that goes with the extension of a path, in any case; "application/octet-stream" for every other. */
MediaType TypeOfFile(const std::string& path);

/**
 * The whole content of a regular file of at most 16 MiB; does not wait for anything else. Throws kelto::osa::Exception
 * saying why not.
 */
std::string ReadAttachedFile(const std::string& path);

}  // namespace kelto::inet
