#ifndef UVA_HOST_OPTIONS_H
#define UVA_HOST_OPTIONS_H

#include "common/options.h"
#include "host/media_source.h"
#include "uva/uva_backend.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace uvahost {

/// "T=FILE": another rendition from a time on.
struct RenditionSwitch {
    double time = 0; ///< seconds
    std::string name;
};

/// "T=audio": a source is detached and attached again at a time.
struct Detach {
    double time = 0; ///< seconds
    host::StreamInfo::Kind kind = host::StreamInfo::Kind::Audio;
};

/// What the command line asks for. Times in seconds.
struct Options {
    std::vector<std::string> media; ///< as the user named them
    std::string backend;            ///< empty: the default
    bool standalone = false;
    bool denyResources = false;
    bool quiet = false;
    bool loop = false;
    std::vector<double> seeks;
    std::optional<double> duration;
    std::optional<double> noProgressTimeout;
    std::optional<UVABackend::Rect> window;
    std::string snapshot; ///< output files; empty: not wanted
    std::optional<double> snapshotAt;
    std::string graph;
    std::string timeline;
    std::string record;
    std::string script; ///< a file; empty: none

    bool mse = false; ///< the media are renditions of one, fed sample by sample
    double start = 0;
    std::vector<RenditionSwitch> switches;
    std::vector<Detach> detaches;
    std::vector<host::KeyPair> keys;
    std::optional<std::chrono::milliseconds> keyDelay;
    host::Protection::Scheme protect = host::Protection::Scheme::None;
    bool fullSampleDecrypter = false;

    std::optional<UVABackend::ContentDescription> canPlay; ///< asked for in place of playing
    bool listTypes = false;                                ///< the same
};

tools::Parsed<Options> parseOptions(int argc, const char* const* argv);

/// "12", "12.5", "1:02" or "1:00:02.5".
std::optional<double> parseTime(const std::string& text);

/// "X,Y,WxH", with a size that is positive and whole numbers that fit a screen.
std::optional<UVABackend::Rect> parseWindow(const std::string& text);

} // namespace uvahost

#endif
