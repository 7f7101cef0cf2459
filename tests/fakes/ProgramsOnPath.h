#pragma once

#include "tests/support/EnvironmentVariable.h"
#include "tests/support/TempDir.h"

#include <string>

namespace kelto::test {

/** A folder of shell scripts that stand before the system's programs of their names, for the length of a scope. */
class ProgramsOnPath {
public:
    ProgramsOnPath();

    /** Makes a program. */
    void Write(const std::string& name, const std::string& script) const;

    /** Makes a program that notes its arguments, each as "<argument>", and goes on with the script. */
    void WriteNoting(const std::string& name, const std::string& script = "") const;

    /** What those have noted: "du <-ks> </folder>" and a line break each. */
    std::string Notes() const;

private:
    const TempDir folder;
    const EnvironmentVariable path;
};

}  // namespace kelto::test
