#pragma once

#include <string>
#include <vector>

namespace kelto::test {

/** Stands in for standard error for the length of a scope and keeps the bounds of each single write. */
class RecordSocket {
public:
    RecordSocket();
    ~RecordSocket();
    RecordSocket(const RecordSocket&) = delete;
    RecordSocket& operator=(const RecordSocket&) = delete;

    /** What was written since the last call, one element a write. */
    std::vector<std::string> TakeWrites();

private:
    int readEnd;
    int savedStandardError;
};

}  // namespace kelto::test
