#ifndef FRAME_FILE_H
#define FRAME_FILE_H

#include "uva/uva_stream_config.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// An MP3 or ADTS file taken apart into its frames: decoding can start with any of them, and all
/// last equally long. A plain value.
struct FrameFile {
    using Bytes = std::vector<std::uint8_t>;
    struct Frame {
        std::size_t offset = 0, size = 0; ///< bytes
    };

    std::shared_ptr<const Bytes> bytes; ///< the whole file
    std::vector<Frame> frames;          ///< empty: no such file
    double frameDuration = 0;           ///< seconds
    std::shared_ptr<const UVAStreamConfig> config;
    std::string mimeType; ///< to attach a source with

    double duration() const { return frameDuration * static_cast<double>(frames.size()); }
};

/// What stands between the frames (tags, damage) is left out.
FrameFile splitFrames(std::vector<std::uint8_t> file);

#endif
