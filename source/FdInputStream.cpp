#include "source/FdInputStream.h"

namespace kelto::halvek::source {

FdInputStream::FdInputStream(int descriptor) : std::istream(nullptr), buffer(descriptor) {
    rdbuf(&buffer);
}

}  // namespace kelto::halvek::source
