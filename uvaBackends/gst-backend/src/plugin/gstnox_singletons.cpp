// The objects that exist from load to unload, in the order of their construction: this one, those
// of the link to the main system (102), those of the framework (103). They set up memory only: no
// thread, no queue, no file.

#include "mse/uva_gstcontentprotection.h"

namespace {

[[gnu::constructor(101)]] void build() {
    InitializeLogging();
}

} // namespace
