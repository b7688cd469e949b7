#ifndef UVA_GST_IF_LINK_H
#define UVA_GST_IF_LINK_H

#include <string>

/// Opens the link to the main system: `uvaGstIfReceiver` with its thread, then `uvaGstIfLowerLayer`
/// with its two. Empty when all is open; else a line for people that names the queue and says what
/// to do, and decoders are refused at once for the life of the process. By one thread, once.
std::string openUvaGstIfLink();

#endif
