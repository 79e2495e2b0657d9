// Linked into a test program, this keeps what the code under test logs out of the machine's log.

#include <syslog.h>

namespace {

[[maybe_unused]] const int kMaskBefore = setlogmask(LOG_MASK(LOG_EMERG));

}  // namespace
