#pragma once

namespace kelto::test {

/** Has the system refuse, for the length of a scope, to give a file a name with a ":" in it, as it does on FAT. */
class FatNames {
public:
    FatNames();
    ~FatNames();
    FatNames(const FatNames&) = delete;
    FatNames& operator=(const FatNames&) = delete;
};

}  // namespace kelto::test
