#ifndef UVA_HOST_GST_ERRORS_H
#define UVA_HOST_GST_ERRORS_H

#include <string>

namespace uvahost {

/// What GStreamer reports as errors. The backend tells its host of hardly any and logs them all:
/// this listens to that log, beside the system log. One a process, to be made before the backend
/// library is loaded and before there are threads. Where the user's GST_DEBUG silences the
/// category "uvabackend" there is nothing to hear.
class GstErrors {
public:
    GstErrors();
    ~GstErrors();

    GstErrors(const GstErrors&) = delete;
    GstErrors& operator=(const GstErrors&) = delete;

    /// The first error since the last call, one printable line; empty: none. Those behind it are
    /// its consequences as a rule. Any thread.
    static std::string take();
};

} // namespace uvahost

#endif
