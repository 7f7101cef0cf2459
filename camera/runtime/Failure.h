#pragma once

#include <stdexcept>
#include <string>

namespace kelto::vcam {

/** Something that the virtual camera cannot do without has failed; the text is for the person who started it. */
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** Hands a result of libsystemd through; a negative one is thrown as "what: reason". */
int Check(int result, const std::string& what);

}  // namespace kelto::vcam
