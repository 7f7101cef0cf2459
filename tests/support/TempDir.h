#pragma once

#include <string>

namespace kelto::test {

/** A folder of a test's own, removed with all that is in it. */
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& GetPath() const { return path; }

    /** The path of a name inside. */
    std::string PathOf(const std::string& name) const { return path + "/" + name; }

    /** Writes a whole file inside and returns its path. */
    std::string Write(const std::string& name, const std::string& content) const;

private:
    std::string path;
};

/** The whole content of a file. */
std::string ReadWholeFile(const std::string& path);

}  // namespace kelto::test
