#pragma once

#include "companions/ctl/Model.h"

#include <sys/types.h>

#include <map>
#include <string>
#include <string_view>

namespace kelto::halvek::ctl {

/** The records on standard error, which ChildProcess has made a file. */
class RecordFile {
public:
    /** Whether the platform writes records in a form that is known here; else nothing is known of them. */
    static bool IsReadable();

    /** A part of a text as it stands in a record. */
    static std::string Escaped(std::string_view text);

    /** A whole text as it stands in a record, which has no line break at its end. */
    static std::string AsRecord(std::string_view text);

    /** Where the next record begins. */
    static off_t End();

    static std::string ReadFrom(off_t begin);

    /**
     * The Warnings and Errors in a text of records, each with the group that was found last before it.
     *
     * @param group   what is loaded at the beginning
     * @param escaped the names of groups as they stand in records, and as they are
     */
    static std::vector<ModelRecord> Parse(std::string_view text, const std::string& group,
                                          const std::map<std::string, std::string>& escaped);
};

}  // namespace kelto::halvek::ctl
