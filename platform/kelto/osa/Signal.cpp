#include "kelto/osa/Signal.h"

namespace kelto::osa {

Signal::Signal(int signalNumber) : Exception("interrupted by signal %d", signalNumber), number(signalNumber) {}

}  // namespace kelto::osa
