#ifndef UVA_HOST_GST_ERRORS_H
#define UVA_HOST_GST_ERRORS_H

#include <string>

namespace uvahost {

/// What GStreamer reports as errors. The backend tells its host of hardly any and logs them all:
/// from now on, to the end of the process, this listens to that log, beside the system log. Called
/// once, before the backend library is loaded and before there are threads. Where the user's
/// GST_DEBUG silences the category "uvabackend" there is nothing to hear.
void hearGstErrors();

/// The first error since the last call, one printable line; empty: none. Those behind it are its
/// consequences as a rule. Any thread.
std::string takeGstError();

} // namespace uvahost

#endif
