#include "companions/ctl/model/RecordFile.h"

namespace kelto::halvek::ctl {

bool RecordFile::IsReadable() {
    return false;
}

std::string RecordFile::Escaped(std::string_view text) {
    return std::string(text);
}

std::string RecordFile::AsRecord(std::string_view text) {
    return std::string(text);
}

off_t RecordFile::End() {
    return 0;
}

std::string RecordFile::ReadFrom(off_t) {
    return {};
}

std::vector<ModelRecord> RecordFile::Parse(std::string_view, const std::string&,
                                           const std::map<std::string, std::string>&) {
    return {};
}

}  // namespace kelto::halvek::ctl
