#pragma once

#include <string>
#include <string_view>

namespace kelto::osa {

/** Operations on the text of paths. All may be called from any thread; only RealPath looks at the file system. */
class PathUtils {
public:
    /** The absolute path without symbolic links; empty if the path does not exist or cannot be followed. */
    static std::string RealPath(const std::string& path);

    /** The two joined by exactly one "/". */
    static std::string PathConcat(std::string_view directory, std::string_view name);

    /** Expands the conversions of strftime with the current local time. */
    static std::string FormatFileName(const std::string& pattern);

    /** All before the last "/"; "/" for a name directly below the root, "." for a name without folder. */
    static std::string Dirname(std::string_view path);

    /** All behind the last "/", without its last "." and what follows; a leading "." belongs to the name. */
    static std::string BasenameWithoutExtension(std::string_view path);

    /** What follows the last "." of the last name, without the "."; empty if there is none or only a leading one. */
    static std::string FileExt(std::string_view path);
};

}  // namespace kelto::osa
