#pragma once

#include <string>
#include <vector>

namespace kelto::osa {

/** Operations on files. All of them may be called from any thread and block as long as the file system does. */
class FileUtils {
public:
    /**
     * Lists a folder.
     *
     * @param directory the folder
     * @param paths     replaced by the full paths of all entries but "." and "..", in byte order; empty if there is no
     *                  such folder
     * @throws Exception if the folder cannot be listed for any other reason
     */
    static void ListFiles(const std::string& directory, std::vector<std::string>& paths);

    /**
     * Copies a regular file so that no reader and no power cut ever sees half of it: written and synced under a short
     * hidden name beside the target, then renamed. The copy's mode is 0666 less the umask. Where a name must not begin
     * with a dot, as on a card mounted as msdos, the name is one like "h00a1b2c.tmp".
     *
     * @param overwrite whether an existing target is replaced; if not, it is a failure
     * @return true when the whole file stands under the target name; otherwise nothing is left behind, and why is
     * logged at Error, but for a name that the file system refuses: the caller may have another one. Throws nothing.
     */
    static bool CopyFile(const std::string& from, const std::string& to, bool overwrite) noexcept;
};

}  // namespace kelto::osa
