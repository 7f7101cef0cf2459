#include "tests/fakes/ProgramsOnPath.h"

#include <sys/stat.h>

#include <cstdlib>

namespace kelto::test {

ProgramsOnPath::ProgramsOnPath() : path("PATH", folder.GetPath() + ":" + std::getenv("PATH")) {}

void ProgramsOnPath::Write(const std::string& name, const std::string& script) const {
    chmod(folder.Write(name, "#!/bin/sh\n" + script + "\n").c_str(), 0755);
}

void ProgramsOnPath::WriteNoting(const std::string& name, const std::string& script) const {
    // In one write, so that programs of one pipeline do not mix their notes.
    const std::string noting = "note=" + name + "\nfor argument; do note=\"$note <$argument>\"; done\n";
    Write(name, noting + "echo \"$note\" >> " + folder.PathOf("notes") + "\n" + script);
}

std::string ProgramsOnPath::Notes() const {
    return ReadWholeFile(folder.PathOf("notes"));
}

}  // namespace kelto::test
