// The objects that exist from load to unload, in the order of their construction, one line each.
// Their constructors set up memory only: no thread, no queue, no file.

#include "uva_gstcontentprotection.h"

namespace {

const bool contentProtectionLogging = InitializeLogging();

} // namespace
